// What may become a machine, and what is said of everything else.
#include <gtest/gtest.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>
#include "machine/partition/formatter.h"
#include "nbd/folder_maker.h"
#include "nbd/image_check.h"
#include "tests/support/scratch_folder.h"

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

std::string MakeImage(const std::string& path, machine::TableKind table, std::uint32_t sector = 512) {
    machine::NewDisk disk;
    disk.path = path;
    disk.size = 24 * kMiB;
    disk.sectorSize = sector;
    disk.table = table;
    disk.volumes.resize(table == machine::TableKind::None ? 0 : 2);
    std::string error;
    EXPECT_TRUE(machine::CreateDisk(disk, error)) << error;
    return path;
}

// The image stays as it is, and the machine's folder does not come to be.
std::string RefusalOf(const TestFolder& scratch, const std::string& image) {
    nbd::NewMachine machine;
    machine.path = scratch.File("refused");
    machine.images = {image};
    const std::vector<char> before = TestFolder::Bytes(image);
    const std::string complaint = Complaint([&] { nbd::MakeMachine(machine); });
    EXPECT_FALSE(std::filesystem::exists(machine.path));
    EXPECT_TRUE(TestFolder::Bytes(image) == before);
    return complaint;
}

TEST(Images, WhatCannotBeADiskIsRefusedWithItsReason) {
    const TestFolder scratch;
    const auto file = [&](const char* name, const std::string& bytes) {
        std::ofstream(scratch.File(name), std::ios::binary) << bytes;
        return scratch.File(name);
    };
    const std::string rest(2 * kMiB, '\0');
    const struct {
        std::string image;
        const char* reason;
    } cases[] = {
        {scratch.File("missing"), "No such file"},
        {file("qcow2", "QFI\xfb" + rest), "no raw image but qcow2"},
        {file("vmdk", "KDMV" + rest), "no raw image but vmdk"},
        {file("vhdx", "vhdxfile" + rest), "no raw image but vhdx"},
        {file("short", std::string(512 * 100, '\0')), "too small"},
        {file("odd", std::string(2 * kMiB + 100, '\0')), "no whole number of sectors"},
        {file("blank", rest), "neither a partition table nor a file system"},
        {scratch.Path(), "Is a directory"},
    };
    for (const auto& one : cases)
        EXPECT_NE(RefusalOf(scratch, one.image).find(one.reason), std::string::npos) << one.reason;
}

TEST(Folders, AreReadAsTheyWereWritten) {
    const TestFolder scratch;
    nbd::NewMachine machine;
    machine.path = scratch.File("pc");
    machine.images = {MakeImage(scratch.File("a b"), machine::TableKind::Mbr),
                      MakeImage(scratch.File("c"), machine::TableKind::Gpt)};
    nbd::MakeMachine(machine);
    EXPECT_EQ(nbd::CheckImage(MakeImage(scratch.File("large"), machine::TableKind::Gpt, 4096)).sectorBytes,
              4096u);
    const nbd::MachineFolder folder = nbd::MachineFolder::Read(machine.path);
    ASSERT_EQ(folder.disks.size(), 2u);
    EXPECT_EQ(folder.DiskPath(folder.disks[0]), scratch.File("a b"));

    EXPECT_NE(Complaint([&] { nbd::MakeMachine(machine); }).find("no empty folder"), std::string::npos);
    EXPECT_EQ(nbd::MachineFolder::Read(machine.path).disks.size(), 2u) << "what is there stays";
    machine.path = scratch.File("twice");
    machine.images[1] = machine.images[0];
    EXPECT_NE(Complaint([&] { nbd::MakeMachine(machine); }).find("named twice"), std::string::npos);

    const nbd::FolderLock lock(folder);
    EXPECT_NE(Complaint([&] { const nbd::FolderLock second(folder); }).find("served already"),
              std::string::npos);
    std::ofstream(folder.File(nbd::kMachineFile)) << "disk 513 x\n";
    EXPECT_NE(Complaint([&] { nbd::MachineFolder::Read(folder.path); }).find("line 1"), std::string::npos);
    EXPECT_NE(Complaint([&] { nbd::MachineFolder::Read(scratch.Path()); }).find("no machine"),
              std::string::npos);
}

}  // namespace
