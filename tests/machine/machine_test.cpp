// Whole boots with a stand-in for the driver: what a machine sends, in which order, and what survives.
#include "machine/boot/machine.h"
#include <gtest/gtest.h>
#include "platform/host/io/device.h"
#include "tests/doubles/memory_disk.h"
#include "machine/partition/partition_table.h"
#include "tests/doubles/played_driver.h"
#include "platform/owners.h"
#include "platform/host/io/request.h"
#include "tests/support/stand_in.h"

namespace {

using namespace machine;
constexpr std::uint64_t kMiB = 1024 * 1024;

// An MBR disk of 64 MiB with volumes of 20 MiB and the rest.
std::shared_ptr<MemoryDisk> TwoVolumeDisk(std::uint32_t sector = 512) {
    auto disk = std::make_shared<MemoryDisk>(64 * kMiB, sector);
    std::vector<NewPartition> parts;
    std::string error;
    EXPECT_TRUE(LayOutPartitions(disk->Size(), {20 * kMiB, 0}, TableKind::Mbr, parts, error)) << error;
    for (const DiskPiece& piece : MakeMbr(disk->Size(), sector, parts, 1)) {
        EXPECT_EQ(STATUS_SUCCESS, disk->Write(piece.offset, piece.bytes.data(), piece.bytes.size()));
    }
    return disk;
}

MachineOptions Options(std::vector<MachineDisk> disks, const stand_in::Plan& plan = {}) {
    stand_in::Reset(plan);
    MachineOptions options;
    options.disks = std::move(disks);
    options.driver = stand_in::Entry;
    return options;
}

std::vector<std::u16string> DevicesOf(const std::vector<stand_in::Seen>& seen, UCHAR major, int minor = -1) {
    std::vector<std::u16string> devices;
    for (const auto& s : seen) {
        if (s.major == major && (minor < 0 || s.minor == minor)) devices.push_back(s.device);
    }
    return devices;
}

using Names = std::vector<std::u16string>;
const Names kAllUp = {u"\\Device\\Harddisk0\\DR0", u"\\Device\\HarddiskVolume1", u"\\Device\\HarddiskVolume2"};

TEST(Machine, BootsAndShutsDownInOrder) {
    auto files = std::make_shared<PlayedFiles>();
    MachineOptions options = Options({{TwoVolumeDisk()}}, {.detachDisksAtShutdown = true});
    options.fileSystem = [&](const VolumeDevice& v) {
        return v.Number() == 2 ? PlayedDriver(files, kMiB, 16 * kMiB) : FileSystemDriver{};
    };
    Machine machine(std::move(options));
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    EXPECT_EQ(STATUS_SUCCESS, machine.DriverStatus());
    auto seen = stand_in::TakeSeen();
    EXPECT_EQ(kAllUp, DevicesOf(seen, IRP_MJ_PNP, IRP_MN_START_DEVICE));
    ASSERT_NE(nullptr, machine.VolumeNamed(u"\\device\\harddiskvolume2"));
    EXPECT_EQ(STATUS_UNRECOGNIZED_VOLUME, machine.VolumeOf(1)->mountStatus);
    EXPECT_EQ(STATUS_SUCCESS, machine.VolumeOf(2)->mountStatus);
    // Mounting reads pass the volume's filter and, translated, the disk's.
    EXPECT_EQ(u"\\Device\\HarddiskVolume2", seen[seen.size() - 2].device);
    EXPECT_EQ(0, seen[seen.size() - 2].offset);
    EXPECT_EQ(u"\\Device\\Harddisk0\\DR0", seen.back().device);
    EXPECT_EQ(static_cast<LONGLONG>(21 * kMiB), seen.back().offset);

    IoRegisterLastChanceShutdownNotification(host::TopOfStack(machine.VolumeOf(1)->device->Device()));
    const ShutdownReport report = machine.Shutdown();
    EXPECT_EQ(STATUS_SUCCESS, report.dismount);
    EXPECT_EQ(0, report.leaks.memory.irps);
    EXPECT_EQ(0, report.leaks.memory.mdls);
    EXPECT_TRUE(report.pool.empty());
    seen = stand_in::TakeSeen();
    const Names down = {u"\\Device\\HarddiskVolume2", u"\\Device\\HarddiskVolume1", u"\\Device\\Harddisk0\\DR0",
                        u"\\Device\\HarddiskVolume1"};
    EXPECT_EQ(down, DevicesOf(seen, IRP_MJ_SHUTDOWN));
    EXPECT_EQ(IRP_MJ_SHUTDOWN, seen[2].major) << "the drivers are told before file systems end";
    EXPECT_EQ(IRP_MJ_FLUSH_BUFFERS, seen[3].major);
    EXPECT_EQ(IRP_MJ_SHUTDOWN, seen[4].major) << "and once more, who asked for it";
    // The disk's filter is gone by then.
    EXPECT_EQ((Names{u"\\Device\\HarddiskVolume1", u"\\Device\\HarddiskVolume2"}),
              DevicesOf(seen, IRP_MJ_POWER));
    EXPECT_FALSE(machine.IsOn());
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, machine.Flush(1));
}

NTSTATUS Send(Machine& machine, unsigned volume, UCHAR major, LONGLONG offset, ULONG length,
              host::Pages pages) {
    static UCHAR buffer[8192];
    host::Request request;
    request.major = major;
    request.offset = offset;
    request.length = length;
    request.buffer = buffer;
    request.pages = pages;
    return host::Send(machine.VolumeOf(volume)->device->Device(), request).status;
}

TEST(Machine, VolumesKeepTheirBoundsAndLockWhatNobodyHasLocked) {
    Machine machine(Options({{TwoVolumeDisk()}}));
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    constexpr LONGLONG kEnd = 20 * kMiB;
    const std::pair<LONGLONG, ULONG> refused[] = {{kEnd, 512}, {kEnd - 512, 1024},     {-512, 512},    {1, 512},
                                                  {0, 100},    {INT64_MAX - 511, 512}, {kEnd + 512, 0}};
    for (const auto& [offset, length] : refused)
        EXPECT_EQ(STATUS_INVALID_PARAMETER, Send(machine, 1, IRP_MJ_WRITE, offset, length, host::Pages::Locked))
            << offset;
    EXPECT_EQ(STATUS_SUCCESS, Send(machine, 1, IRP_MJ_READ, kEnd, 0, host::Pages::Locked));
    EXPECT_EQ(STATUS_SUCCESS, Send(machine, 1, IRP_MJ_READ, kEnd - 512, 512, host::Pages::Locked));
    EXPECT_EQ(STATUS_SUCCESS, Send(machine, 1, IRP_MJ_WRITE, 0, 512, host::Pages::Unlocked));
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Send(machine, 1, IRP_MJ_READ, 0, 512, host::Pages::Bad));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Send(machine, 1, IRP_MJ_READ, 0, 512, host::Pages::None));
    machine.VolumeOf(1)->io->Close();
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, machine.VolumeOf(1)->io->Flush());
}

TEST(Machine, ArmedCutCountsDiskAndRegistryInOneSequence) {
    auto disk = TwoVolumeDisk();
    auto start = disk->Clone();
    Machine machine(Options({{disk}}));
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    std::vector<UCHAR> data(1024, 0x77), back(1024);
    ASSERT_EQ(STATUS_SUCCESS, machine.Registry().CreateKey(u"\\Registry\\k"));
    machine.Power().ArmCut(3, 1);
    EXPECT_EQ(STATUS_SUCCESS, machine.Write(1, 0, data.data(), 1024));
    EXPECT_EQ(STATUS_SUCCESS, machine.Registry().Set(u"\\Registry\\k", u"v", {REG_BINARY, {1}}));
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, machine.Write(1, 4096, data.data(), 1024))
        << "one sector of it arrived";
    EXPECT_TRUE(machine.Power().IsCut());
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, machine.Write(1, 8192, data.data(), 1024));
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, machine.Read(1, 0, back.data(), 1024));
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, machine.Registry().Flush());
    machine.PowerCut();
    KVR_DISCARD(start->Write(kMiB, data.data(), 1024), "memory");
    KVR_DISCARD(start->Write(kMiB + 4096, data.data(), 512), "memory");
    EXPECT_TRUE(disk->SameContent(*start));
}

TEST(Machine, RemovalAsksFirstAndTakesAllOrNothing) {
    auto stick = TwoVolumeDisk();
    stand_in::Plan plan;
    Machine machine(Options({{TwoVolumeDisk()}}));
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    unsigned number = 0;
    ASSERT_EQ(STATUS_SUCCESS, machine.AddDisk({stick, true}, number));
    EXPECT_EQ(1u, number);
    ASSERT_NE(nullptr, machine.VolumeOf(4));
    UCHAR sector[512] = {};
    EXPECT_EQ(STATUS_SUCCESS, machine.Write(4, 0, sector, 512));
    const ULONG before = host::DeviceCount();
    EXPECT_EQ(STATUS_SUCCESS, machine.RemoveDisk(1));
    EXPECT_EQ(before - 6, host::DeviceCount()) << "a disk, two volumes and their filters";
    EXPECT_EQ(nullptr, machine.VolumeOf(4));
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, machine.Write(4, 0, sector, 512));

    machine.Shutdown();
    plan.refuseQueryRemove = true;
    stand_in::Reset(plan);
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    EXPECT_EQ(nullptr, machine.VolumeOf(3)) << "what was unplugged stays unplugged";
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, machine.RemoveVolume(1));
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, machine.RemoveDisk(0));
    const auto seen = stand_in::TakeSeen();
    EXPECT_EQ(2u, DevicesOf(seen, IRP_MJ_PNP, IRP_MN_CANCEL_REMOVE_DEVICE).size());
    EXPECT_TRUE(DevicesOf(seen, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE).empty());
    EXPECT_EQ(STATUS_SUCCESS, machine.Write(1, 0, sector, 512));
}

}  // namespace
