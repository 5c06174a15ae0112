// What may become a machine, and what is said of everything else.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include "machine/disk/image_disk.h"
#include "machine/partition/formatter.h"
#include "machine/partition/subprocess.h"
#include "nbd/folder_maker.h"
#include "nbd/image_check.h"
#include "tests/nbd/powered.h"
#include "tests/support/scratch_folder.h"

namespace {

using nbd_test::kMiB;

// The image stays as it is, and the machine's folder does not come to be.
std::string RefusalOf(const TestFolder& scratch, const std::vector<std::string>& images) {
    nbd::NewMachine machine;
    machine.path = scratch.File("refused");
    machine.images = images;
    const std::vector<char> before = TestFolder::Bytes(images[0]);
    const std::string complaint = Complaint([&] { nbd::MakeMachine(machine); });
    EXPECT_FALSE(std::filesystem::exists(machine.path));
    EXPECT_TRUE(TestFolder::Bytes(images[0]) == before);
    return complaint;
}

TEST(Folders, WhatCannotBeADiskIsRefusedWithItsReason) {
    const TestFolder scratch;
    const auto file = [&](const char* name, const std::string& bytes) {
        std::ofstream(scratch.File(name), std::ios::binary) << bytes;
        return scratch.File(name);
    };
    machine::NewDisk large;
    large.path = scratch.File("large");
    large.size = 24 * kMiB;
    large.sectorSize = 4096;
    large.table = machine::TableKind::Gpt;
    large.volumes.resize(2);
    std::string error;
    ASSERT_TRUE(machine::CreateDisk(large, error)) << error;
    EXPECT_EQ(nbd::CheckImage(large.path).sectorBytes, 4096u);

    // A table that counts in sectors says nothing of their size; the file systems do.
    large.path = scratch.File("large mbr");
    large.table = machine::TableKind::Mbr;
    ASSERT_TRUE(machine::CreateDisk(large, error)) << error;
    EXPECT_EQ(nbd::CheckImage(large.path).sectorBytes, 4096u);
    EXPECT_EQ(nbd::CheckImage(large.path, 512).sectorBytes, 512u);
    std::filesystem::create_hard_link(large.path, scratch.File("link"));
    std::filesystem::copy_file(scratch.File("large"), scratch.File("cut"));
    std::filesystem::resize_file(scratch.File("cut"), 16 * kMiB);
    ASSERT_EQ(mkfifo(scratch.File("pipe").c_str(), 0600), 0);

    const std::string rest(2 * kMiB, '\0');
    const auto marked = [&](std::size_t offset, const std::string& mark) {
        return std::string(rest).replace(offset, mark.size(), mark);
    };
    // Of a record at the end, its own sector stands in it.
    std::string raid = marked(rest.size() - 8192, "\xfc\x4e\x2b\xa9");
    const std::uint64_t sector = (rest.size() - 8192) / 512;
    raid.replace(rest.size() - 8192 + 144, 8, std::string(reinterpret_cast<const char*>(&sector), 8));
    const struct {
        std::vector<std::string> images;
        const char* reason;
    } table[] = {
        {{scratch.File("missing")}, "No such file"},
        {{file("qcow2", "QFI\xfb" + rest)}, "no raw image but qcow2"},
        {{file("vmdk", "KDMV" + rest)}, "no raw image but vmdk"},
        {{file("vhdx", "vhdxfile" + rest)}, "no raw image but vhdx"},
        {{file("short", std::string(512 * 100, '\0'))}, "too small"},
        {{file("odd", std::string(2 * kMiB + 100, '\0'))}, "no whole number of sectors"},
        {{file("blank", rest)}, "neither a partition table nor a file system"},
        {{scratch.Path()}, "Is a directory"},
        {{large.path, scratch.File("link")}, "named twice"},
        {{large.path, scratch.File("pipe")}, "neither a file nor a block device"},
        {{scratch.File("cut")}, "cut short"},
        {{file("two\nlines", rest)}, "control characters"},
        {{file("volume group", marked(512, "LABELONE"))}, "LVM physical volume"},
        {{file("encrypted", marked(0, "LUKS\xba\xbe"))}, "encrypted"},
        {{file("raid first", marked(4096, "\xfc\x4e\x2b\xa9"))}, "RAID"},
        {{file("raid last", raid)}, "RAID"},
    };
    for (const auto& row : table)
        EXPECT_NE(RefusalOf(scratch, row.images).find(row.reason), std::string::npos) << row.reason;

    const auto read = [&] { nbd::MachineFolder::Read(scratch.Path()); };
    EXPECT_NE(Complaint(read).find("no machine"), std::string::npos);
    file(nbd::kMachineFile, "disk 513 x\n");
    EXPECT_NE(Complaint(read).find("line 1"), std::string::npos);
}

TEST(Folders, NothingOfAMachineIsForOthersAndNoPlantedLinkIsFollowed) {
    const TestFolder scratch;
    nbd::NewMachine machine;
    machine.path = scratch.File("pc");
    machine.size = 16 * kMiB;
    std::filesystem::create_directory(machine.path);
    nbd::MakeMachine(machine);
    for (const auto& entry : std::filesystem::directory_iterator(machine.path))
        EXPECT_EQ(entry.status().permissions(), std::filesystem::perms(0600)) << entry.path();
    for (const char* name : {"log", "registry.new", "lock"})
        std::filesystem::create_symlink(scratch.File("target"), machine.path + "/" + name);

    const nbd::MachineFolder folder = nbd::MachineFolder::Read(machine.path);
    EXPECT_NE(Complaint([&] { const nbd::FolderLock refused(folder); }).find("symbolic link"),
              std::string::npos);
    std::filesystem::remove(folder.File(nbd::kLockFile));
    const auto server = nbd_test::PoweredOn(machine.path);
    server->Log().Line("client: \x1b[31m\xc2\x9bred\x07");
    server->Stop();
    EXPECT_FALSE(std::filesystem::exists(scratch.File("target")));
    const std::vector<char> log = TestFolder::Bytes(machine.path + "/log");
    EXPECT_NE(std::string(log.begin(), log.end()).find("client:  [31m  red "), std::string::npos);

    // The path of a socket has room for about a hundred characters; a short link to a long path does not help.
    std::filesystem::create_directory(scratch.File(std::string(90, 'l')));
    std::filesystem::create_symlink(scratch.File(std::string(90, 'l')), scratch.File("short"));
    machine.path = scratch.File("short") + "/pc";
    EXPECT_NE(Complaint([&] { nbd::MakeMachine(machine); }).find("too long"), std::string::npos);
}

// What the host uses already, of a file and of the device that is made of it.
TEST(Folders, WhatTheHostUsesIsRefusedWithItsUser) {
    const TestFolder scratch;
    const std::string image = scratch.Sparse("image", 32 * kMiB);
    const auto loop = [&](std::vector<std::string> how) {
        how.insert(how.end(), {"--find", "--show", image});
        const machine::ToolResult made = machine::RunTool("losetup", how);
        return made.started && made.exitCode == 0 ? made.output.substr(0, made.output.find('\n')) : "";
    };
    const auto run = [](const char* tool, std::vector<std::string> words) {
        EXPECT_EQ(machine::RunTool(tool, words).exitCode, 0) << tool;
    };
    const auto check = [&](const std::string& disk) {
        return Complaint([&] { EXPECT_EQ(nbd::CheckImage(disk).path, disk); });
    };
    run("mke2fs", {"-q", "-F", image});
    const std::string device = loop({});
    if (device.empty()) GTEST_SKIP() << "no loop devices here";
    EXPECT_NE(check(image).find("the loop device " + device + " is made of it"), std::string::npos);
    EXPECT_EQ(check(device), "");
    const std::string place = scratch.File("a place");
    std::filesystem::create_directory(place);
    run("mount", {device, place});
    EXPECT_EQ(check(device), "cannot use disk image " + device + ": " + device + " is mounted on " + place);
    EXPECT_NE(check(image).find(device + " is mounted on " + place), std::string::npos) << check(image);
    run("umount", {place});
    {
        // Held: nobody else gets the device.
        std::string error;
        const auto held = machine::ImageDisk::Open(device, 512, error);
        ASSERT_NE(held, nullptr) << error;
        EXPECT_NE(machine::RunTool("mount", {device, place}).exitCode, 0);
        EXPECT_NE(check(device).find("another program"), std::string::npos);
    }
    run("losetup", {"-d", device});
    const std::string readOnly = loop({"-r"});
    EXPECT_EQ(check(readOnly), "cannot use disk image " + readOnly + ": it is read-only");
    run("losetup", {"-d", readOnly});
    EXPECT_EQ(check(image), "");
}

}  // namespace
