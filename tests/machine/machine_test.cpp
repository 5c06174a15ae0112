// A machine below its driver: the bounds of volumes, a cut of its power, disks that go. (What it sends, and in
// which order, shows in what survives of the work in a shutdown's course: the demonstration.)
#include "machine/boot/machine.h"
#include <gtest/gtest.h>
#include "platform/host/io/device.h"
#include "tests/doubles/memory_disk.h"
#include "machine/partition/partition_table.h"
#include "platform/owners.h"
#include "platform/host/io/request.h"
#include "tests/support/protected_computer.h"

namespace {

using namespace machine;
constexpr std::uint64_t kMiB = 1024 * 1024;

// An MBR disk of 64 MiB with volumes of 20 MiB and the rest.
std::shared_ptr<MemoryDisk> TwoVolumeDisk() {
    auto disk = std::make_shared<MemoryDisk>(64 * kMiB, 512);
    std::vector<NewPartition> parts;
    std::string error;
    EXPECT_TRUE(LayOutPartitions(disk->Size(), {20 * kMiB, 0}, TableKind::Mbr, parts, error)) << error;
    for (const DiskPiece& piece : MakeMbr(disk->Size(), 512, parts, 1))
        EXPECT_EQ(STATUS_SUCCESS, disk->Write(piece.offset, piece.bytes.data(), piece.bytes.size()));
    return disk;
}

MachineOptions Options(std::shared_ptr<MemoryDisk> disk) {
    MachineOptions options;
    options.disks = {{std::move(disk)}};
    return options;
}

NTSTATUS Send(Machine& machine, unsigned volume, UCHAR major, LONGLONG offset, ULONG length,
              host::Pages pages) {
    static UCHAR buffer[8192];
    const host::Request request{
        .major = major, .pages = pages, .length = length, .offset = offset, .buffer = buffer};
    return host::Send(machine.VolumeOf(volume)->device->Device(), request).status;
}

TEST(Machine, VolumesKeepTheirBoundsAndLockWhatNobodyHasLocked) {
    Machine machine(Options(TwoVolumeDisk()));
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
    Machine machine(Options(disk));
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
    using namespace support;
    ProtectedComputer computer;
    Machine& machine = computer.Hardware();
    ASSERT_NO_FATAL_FAILURE(computer.Install({}, kSwapBytes));
    ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
    const ULONG before = host::DeviceCount();
    unsigned number = 0;
    ASSERT_EQ(STATUS_SUCCESS, machine.AddDisk({TwoVolumeDisk(), true}, number));
    EXPECT_EQ(2u, number);
    ASSERT_NE(nullptr, machine.VolumeOf(4));
    UCHAR sector[512] = {};
    EXPECT_EQ(STATUS_SUCCESS, machine.Write(4, 0, sector, 512));
    EXPECT_EQ(STATUS_SUCCESS, machine.RemoveDisk(number));
    EXPECT_EQ(before, host::DeviceCount()) << "a disk, two volumes and their filters";
    EXPECT_EQ(nullptr, machine.VolumeOf(4));
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, machine.Write(4, 0, sector, 512));
    for (int boot = 0; boot < 2; ++boot) {
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, machine.RemoveVolume(kDataVolume)) << "a protected one";
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, machine.RemoveDisk(1));
        EXPECT_EQ(STATUS_SUCCESS, machine.Write(kDataVolume, 0, sector, 512));
        machine.Shutdown();
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        EXPECT_EQ(nullptr, machine.VolumeOf(3)) << "what was unplugged stays unplugged";
    }
}

}  // namespace
