// A machine with real NTFS on an image file, from formatting to what an outside tool finds in the end.
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>
#include "machine/formatter.h"
#include "machine/guest_volume.h"
#include "machine/image_disk.h"
#include "machine/subprocess.h"
#include "tests/support/stand_in.h"

namespace {

using namespace machine;

TEST(MachineWithNtfs, FilesSurviveBootsAndTheVolumeIsSound) {
    char folder[] = "/tmp/kvr_machine_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    const std::string path = std::string(folder) + "/disk.img";
    NewDisk created;
    created.path = path;
    created.size = 64 << 20;
    created.volumes.resize(2);
    std::string error;
    ASSERT_TRUE(CreateDisk(created, error)) << error;
    std::shared_ptr<Disk> image = ImageDisk::Open(path, 512, error);
    ASSERT_NE(nullptr, image) << error;
    stand_in::Reset();
    MachineOptions options;
    options.disks = {{image, false, Completion::Pended}};
    options.driver = stand_in::Entry;
    options.fileSystem = [](const VolumeDevice&) {
        return FileSystemDriver{u"\\FileSystem\\Ntfs", NtfsFactory()};
    };
    std::vector<std::uint8_t> data(300000, 0x6B), back;
    {
        Machine machine(std::move(options));
        image.reset();
        ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
        for (unsigned volume : {1u, 2u}) {
            ASSERT_NE(nullptr, NtfsOn(machine, volume)) << std::hex << machine.VolumeOf(volume)->mountStatus;
            ASSERT_EQ(STATUS_SUCCESS, GuestFiles(*NtfsOn(machine, volume)).WriteFile(u"\\a.bin", data));
        }
        NTSTATUS booted = STATUS_UNSUCCESSFUL;
        const ShutdownReport report = machine.Reboot(booted);
        ASSERT_EQ(STATUS_SUCCESS, booted);
        EXPECT_EQ(STATUS_SUCCESS, report.dismount);
        EXPECT_EQ(0u, report.leaks.handles);
        EXPECT_EQ(0, report.leaks.memory.irps);
        ASSERT_EQ(STATUS_SUCCESS, GuestFiles(*NtfsOn(machine, 2)).ReadFile(u"\\A.BIN", back));
        EXPECT_EQ(data, back);
        // The cut drops the mount where it stands.
        ASSERT_EQ(STATUS_SUCCESS, GuestFiles(*NtfsOn(machine, 1)).WriteFile(u"\\b.bin", data));
        machine.PowerCut();
        ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
        ASSERT_NE(nullptr, NtfsOn(machine, 1));
        machine.Shutdown();
    }
    PartitionTable table;
    ASSERT_TRUE(ReadImagePartitions(path, 512, table, error));
    const std::string volume = std::string(folder) + "/volume.img";
    RunTool("dd", {"if=" + path, "of=" + volume, "bs=1M", "iflag=skip_bytes,count_bytes",
                   "skip=" + std::to_string(table.partitions[1].offset),
                   "count=" + std::to_string(table.partitions[1].length)});
    const ToolResult checked = RunTool("ntfsresize", {"-i", "-f", volume});
    EXPECT_EQ(0, checked.exitCode) << checked.output;
    std::filesystem::remove_all(folder);
}

}  // namespace
