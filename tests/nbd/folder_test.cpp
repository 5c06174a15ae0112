// What may become a machine, and what is said of everything else.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include "machine/partition/formatter.h"
#include "nbd/folder_maker.h"
#include "nbd/image_check.h"
#include "tests/support/scratch_folder.h"

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

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
    };
    for (const auto& row : table)
        EXPECT_NE(RefusalOf(scratch, row.images).find(row.reason), std::string::npos) << row.reason;

    const auto read = [&] { nbd::MachineFolder::Read(scratch.Path()); };
    EXPECT_NE(Complaint(read).find("no machine"), std::string::npos);
    file(nbd::kMachineFile, "disk 513 x\n");
    EXPECT_NE(Complaint(read).find("line 1"), std::string::npos);
}

}  // namespace
