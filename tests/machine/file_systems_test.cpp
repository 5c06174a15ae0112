// What every file system of the machine promises to the driver and to the guest's programs, on each format.
#include "machine/boot/any_file_system.h"
#include "tests/machine/format_support.h"

namespace {

using namespace format_test;

class FileSystems : public ::testing::TestWithParam<Format> {
protected:
    TestVolume Fresh(std::uint64_t size) const { return TestVolume(GetParam().Fresh(size), GetParam().sector); }
    ::testing::AssertionResult Sound(const TestVolume& volume) const { return GetParam().Sound(volume.bytes); }
};
// Formats that differ in how they lie on the volume.
class Storage : public FileSystems {};

constexpr std::uint32_t kBlock = kMiB;  // what a swap file grows by

TEST_P(Storage, BlocksArriveAsDataOfTheirFileAndNeverMove) {
    TestVolume volume = Fresh(48 * kMiB);
    Bytes all;
    {
        const Mounted mounted(GetParam(), volume);
        ASSERT_EQ(mounted.status, STATUS_SUCCESS);
        auto file = mounted.Open(StorageOpen(u"\\kvr.SWP"));
        ASSERT_NE(file, nullptr);
        std::vector<Request> places;
        ULONG done = 0;
        for (unsigned i = 0; i < 9; ++i) {
            volume.requests.clear();
            const Bytes data = Pattern(kBlock, i);
            ASSERT_EQ(file->Write(LONGLONG{i} * kBlock, data.data(), kBlock, done), STATUS_SUCCESS);
            EXPECT_EQ(done, kBlock);
            const std::vector<Request> writes = volume.Writes(u"\\kvr.SWP");
            EXPECT_EQ(Covered(writes), kBlock) << "each block is written once";
            EXPECT_EQ(writes.size(), GetParam().IsNtfs() ? 1u : writes.size())
                << "a fresh NTFS has room in one piece";
            EXPECT_EQ(writes.front().file->Flags, FO_NO_INTERMEDIATE_BUFFERING);
            EXPECT_FALSE(volume.Writes(u"\\$Mft").empty()) << "where the block lies is stored with it";
            EXPECT_TRUE(volume.requests.back().name != u"\\kvr.SWP") << "and after it";
            places.insert(places.end(), writes.begin(), writes.end());
            all.insert(all.end(), data.begin(), data.end());
        }
        EXPECT_TRUE(GetParam().IsNtfs() || Sound(volume)) << "with the file still open";
        volume.requests.clear();
        const Bytes again = Pattern(kBlock, 99);
        ASSERT_EQ(file->Write(kBlock, again.data(), kBlock, done), STATUS_SUCCESS);
        EXPECT_EQ(volume.requests.size(), volume.Writes(u"\\kvr.SWP").size())
            << "an overwrite touches the data alone";
        std::copy(again.begin(), again.end(), all.begin() + kBlock);
        Bytes found;
        for (const Request& place : places) {
            const auto from = volume.bytes.begin() + static_cast<std::ptrdiff_t>(place.offset);
            found.insert(found.end(), from, from + place.length);
        }
        EXPECT_TRUE(found == all);
        EXPECT_EQ(file->Read(0, found.data(), kBlock, done), STATUS_ACCESS_DENIED);
        EXPECT_EQ(file->Write(1, found.data(), GetParam().sector, done), STATUS_INVALID_PARAMETER);
        file.reset();
        machine::DirectoryEntry entry;
        ASSERT_EQ(mounted.fileSystem->Query(u"\\KVR.swp", entry), STATUS_SUCCESS) << "case does not matter";
        EXPECT_EQ(entry.attributes & FILE_ATTRIBUTE_SYSTEM, FILE_ATTRIBUTE_SYSTEM);
        EXPECT_EQ(entry.size, all.size());
    }
    EXPECT_TRUE(Sound(volume));
    // A library believes what is stored beside the bitmaps, which the tools do not look at.
    const Mounted again(GetParam(), volume);
    EXPECT_EQ(again.files->WriteFile(u"\\more", Pattern(100, 1)), STATUS_SUCCESS);
    Bytes read;
    EXPECT_EQ(again.files->ReadFile(u"\\kvr.SWP", read), STATUS_SUCCESS);
    EXPECT_TRUE(read == all);
}

TEST_P(Storage, AFullDiskLeavesWholeBlocksAndDeletionGivesAllOfItBack) {
    TestVolume volume = Fresh(16 * kMiB);
    {
        const Mounted mounted(GetParam(), volume);
        machine::GuestFiles& files = *mounted.files;
        for (const char16_t* path : {u"\\first", u"\\second"})  // tables grow once
            ASSERT_EQ(files.WriteFile(path, {}), STATUS_SUCCESS);
        for (const char16_t* path : {u"\\first", u"\\second"}) ASSERT_EQ(files.Delete(path), STATUS_SUCCESS);
        std::uint64_t before = 0, full = 0, after = 0, written = 0;
        ASSERT_EQ(files.FreeSpace(before), STATUS_SUCCESS);
        auto file = mounted.Open(StorageOpen(u"\\kvr.SWP"));
        const Bytes block = Pattern(kBlock, 1);
        ULONG done = 0;
        NTSTATUS status = STATUS_SUCCESS;
        while (NT_SUCCESS(status = file->Write(static_cast<LONGLONG>(written), block.data(), kBlock, done)))
            written += kBlock;
        EXPECT_EQ(status, STATUS_DISK_FULL);
        EXPECT_EQ(done, 0u);
        ASSERT_EQ(files.FreeSpace(full), STATUS_SUCCESS);
        EXPECT_LT(full, kBlock + 65536 * 2) << "a block that fits somewhere must not be refused";
        EXPECT_EQ(files.Delete(u"\\kvr.swp"), STATUS_SHARING_VIOLATION);
        file.reset();
        machine::DirectoryEntry entry;
        ASSERT_EQ(mounted.fileSystem->Query(u"\\kvr.SWP", entry), STATUS_SUCCESS);
        EXPECT_EQ(entry.size, written);
        EXPECT_EQ(files.WriteAt(u"\\far", std::uint64_t{1} << 40, Pattern(512, 1)), STATUS_DISK_FULL);
        EXPECT_EQ(files.Delete(u"\\far"), STATUS_SUCCESS);
        volume.trimmed = 0;
        EXPECT_EQ(files.Delete(u"\\KVR.swp"), STATUS_SUCCESS);
        EXPECT_GE(volume.trimmed, written) << "the disk hears that nobody needs the sectors";
        ASSERT_EQ(files.FreeSpace(after), STATUS_SUCCESS);
        EXPECT_EQ(after, before);
        EXPECT_EQ(files.Delete(u"\\kvr.SWP"), STATUS_OBJECT_NAME_NOT_FOUND);
    }
    EXPECT_TRUE(Sound(volume));
}

constexpr machine::FormatMaker kMakeNtfs = machine::MakeNtfsFormat, kMakeExt = machine::MakeExtFormat;
INSTANTIATE_TEST_SUITE_P(
    Formats, Storage,
    ::testing::Values(kNtfs, Format{kMakeNtfs, "-s 4096 -c 4096", 4096}, Format{kMakeNtfs, "-s 512 -c 65536"},
                      Format{kMakeExt, "-t ext4 -b 4096"}, Format{kMakeExt, "-t ext4 -b 4096", 4096},
                      Format{kMakeExt, "-t ext4 -b 1024 -O ^metadata_csum,uninit_bg,^64bit"},
                      Format{kMakeExt, "-t ext3 -b 4096"}, Format{kMakeExt, "-t ext2 -b 1024"}));

TEST_P(FileSystems, WhatTheDriverHoldsCannotBeReadWrittenMovedOrDeleted) {
    TestVolume volume = Fresh(16 * kMiB);
    const Mounted mounted(GetParam(), volume);
    machine::GuestFiles& files = *mounted.files;
    ASSERT_EQ(files.MakeDirectory(u"\\d"), STATUS_SUCCESS);
    ASSERT_EQ(files.WriteFile(u"\\d\\held", Pattern(5000, 1)), STATUS_SUCCESS);
    auto held = mounted.Open(HoldOpen(u"\\d\\held"));
    Bytes read;
    EXPECT_EQ(files.ReadFile(u"\\d\\HELD", read), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(files.WriteFile(u"\\d\\held", read), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(files.Delete(u"\\d\\held"), STATUS_SHARING_VIOLATION);
    const bool moves = GetParam().IsNtfs();
    EXPECT_EQ(files.Rename(u"\\d\\held", u"\\gone"), moves ? STATUS_SHARING_VIOLATION : STATUS_NOT_SUPPORTED);
    EXPECT_EQ(files.Rename(u"\\d", u"\\e"), moves ? STATUS_ACCESS_DENIED : STATUS_NOT_SUPPORTED)
        << "nor can the directory above it move";
    held.reset();
    EXPECT_EQ(files.ReadFile(u"\\d\\held", read), STATUS_SUCCESS);
    EXPECT_TRUE(read == Pattern(5000, 1)) << "a refused overwrite must not have emptied the file";
    EXPECT_EQ(files.ReadFile(u"\\d\\held\\below", read), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(files.WriteFile(u"\\d\\held", Pattern(100, 2)), STATUS_SUCCESS);
    EXPECT_EQ(files.ReadFile(u"\\d\\held", read), STATUS_SUCCESS);
    EXPECT_TRUE(read == Pattern(100, 2)) << "nothing of the old contents is left";
    EXPECT_EQ(files.WriteFile(u"\\used", Pattern(8 * kMiB, 3)), STATUS_SUCCESS);
    EXPECT_EQ(files.Delete(u"\\used"), STATUS_SUCCESS);
    EXPECT_EQ(files.WriteAt(u"\\d\\held", 2 * kMiB, Pattern(100, 4)), STATUS_SUCCESS);
    EXPECT_EQ(files.ReadAt(u"\\d\\held", 100, 2 * kMiB - 100, read), STATUS_SUCCESS);
    EXPECT_TRUE(read == Bytes(2 * kMiB - 100)) << "a gap reads as zeros wherever it lies";
    EXPECT_EQ(files.ReadFile(u"\\d", read), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(files.Delete(u"\\d"), moves ? STATUS_DIRECTORY_NOT_EMPTY : STATUS_FILE_IS_A_DIRECTORY);

    // Opens that share deletion keep a file that is deleted until the last of them goes.
    const host::FileOpen sharing{u"\\d\\held", FILE_READ_DATA, 7, FILE_OPEN, 0, 0};
    auto last = mounted.Open(sharing);
    EXPECT_EQ(files.Delete(u"\\d\\held"), STATUS_SUCCESS);
    mounted.Open(sharing, STATUS_DELETE_PENDING);
    last.reset();
    mounted.Open(sharing, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(Sound(volume));
}

// Whoever boots a machine to look at a volume must not find it changed.
TEST_P(FileSystems, LookingWritesNothingAndTellsTheKind) {
    TestVolume volume = Fresh(16 * kMiB);
    const Bytes before = volume.bytes;
    {
        NTSTATUS status = STATUS_SUCCESS;
        const auto mounted = machine::AnyFileSystem().mount(volume, status);
        ASSERT_NE(mounted, nullptr);
        const bool ntfs = GetParam().IsNtfs();
        EXPECT_EQ(mounted->Kind(), ntfs ? FileSystemKind::Ntfs : FileSystemKind::Ext);
        EXPECT_EQ(mounted->DriverName(), ntfs ? u"" : u"\\FileSystem\\Ext4");
        std::vector<machine::DirectoryEntry> entries;
        auto& files = dynamic_cast<machine::GuestFileSystem&>(*mounted);
        ASSERT_EQ(files.List(u"\\", entries), STATUS_SUCCESS);
        EXPECT_EQ(entries.size(), ntfs ? 0u : 1u) << "lost+found";
        EXPECT_FALSE(files.ReadOnly());
    }
    EXPECT_TRUE(volume.bytes == before);
}

// ---- standing back while somebody else changes the volume below --------------------------------------------

NTSTATUS ReadSome(host::OpenFile& file, Bytes& bytes) {
    bytes.resize(192 * 512);
    ULONG done = 0;
    const NTSTATUS status = file.Read(0, bytes.data(), static_cast<ULONG>(bytes.size()), done);
    bytes.resize(done);
    return status;
}

// Deletes \gone and lets another file have its number, and gives \stays other contents elsewhere.
void WorkAsAnotherSystem(const Format& format, TestVolume& volume) {
    const Mounted other(format, volume);
    ASSERT_EQ(other.files->Delete(u"\\gone"), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\new", Pattern(5000, 3)), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\blocker", Pattern(60000, 4)), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\stays", Pattern(90000, 5)), STATUS_SUCCESS);
}

TEST_P(FileSystems, SuspendedTheyTouchNothingAndBelieveNothingOldAfterwards) {
    TestVolume volume = Fresh(16 * kMiB);
    const Mounted mounted(GetParam(), volume);
    ASSERT_EQ(mounted.files->WriteFile(u"\\gone", Pattern(20000, 1)), STATUS_SUCCESS);
    ASSERT_EQ(mounted.files->WriteFile(u"\\stays", Pattern(20000, 2)), STATUS_SUCCESS);
    auto gone = mounted.Open(HoldOpen(u"\\gone")), stays = mounted.Open(HoldOpen(u"\\stays"));
    mounted.fileSystem->Suspend();
    volume.requests.clear();
    Bytes bytes;
    EXPECT_EQ(ReadSome(*stays, bytes), STATUS_DEVICE_BUSY);
    mounted.Open(HoldOpen(u"\\new"), STATUS_DEVICE_BUSY);
    EXPECT_EQ(mounted.fileSystem->Delete(u"\\stays"), STATUS_DEVICE_BUSY);
    EXPECT_TRUE(volume.requests.empty());

    WorkAsAnotherSystem(GetParam(), volume);
    mounted.fileSystem->Resume();
    EXPECT_EQ(ReadSome(*gone, bytes), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(ReadSome(*stays, bytes), STATUS_SUCCESS);
    EXPECT_TRUE(bytes == Pattern(90000, 5));
    // The number that \gone had is free for its new owner, though the old file is still open.
    EXPECT_EQ(mounted.files->ReadFile(u"\\new", bytes), STATUS_SUCCESS);
    EXPECT_TRUE(bytes == Pattern(5000, 3));
    EXPECT_EQ(mounted.files->WriteFile(u"\\mine", Pattern(30000, 6)), STATUS_SUCCESS);
    gone.reset();
    stays.reset();
    EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_SUCCESS);
    EXPECT_TRUE(Sound(volume));
}

// What is due with the last close of a file that was written is there before the other one comes, and a
// dismount behind its back writes nothing more. Then the volume holds something else.
TEST_P(FileSystems, SuspendedTheyHaveWrittenWhatIsDueAndKnowWhenTheVolumeIsGone) {
    TestVolume volume = Fresh(16 * kMiB);
    Bytes before;
    {
        const Mounted mounted(GetParam(), volume);
        auto file = mounted.Open(StorageOpen(u"\\written"));
        ULONG done = 0;
        ASSERT_EQ(file->Write(0, Pattern(65536, 1).data(), 65536, done), STATUS_SUCCESS);
        volume.requests.clear();
        mounted.fileSystem->Suspend();
        EXPECT_EQ(volume.Writes().empty(), !GetParam().IsNtfs()) << "the directory's copy of the size";
        EXPECT_TRUE(Sound(volume));
        before = volume.bytes;
        EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_SUCCESS);
        EXPECT_EQ(file->Write(0, before.data(), 512, done), STATUS_DEVICE_NOT_READY);
    }
    EXPECT_TRUE(volume.bytes == before);
    const Mounted mounted(GetParam(), volume);
    mounted.fileSystem->Suspend();
    std::fill(volume.bytes.begin(), volume.bytes.end(), std::uint8_t{0});
    mounted.fileSystem->Resume();
    std::uint64_t free = 0;
    EXPECT_EQ(mounted.fileSystem->FreeSpace(free), STATUS_UNRECOGNIZED_VOLUME);
    EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Formats, FileSystems, ::testing::Values(kNtfs, kExt4));

}  // namespace
