// Which ext volumes are changed, which are only read and which are left alone; and standing back meanwhile.
#include <algorithm>
#include "ext_support.h"
#include "machine/boot/any_file_system.h"
#include "machine/partition/formatter.h"

namespace {

using namespace ext_test;

constexpr std::uint64_t kVolumeBytes = 16 * kMiB;

struct Refusal {
    std::string options;  // mke2fs's
    std::string request;  // debugfs's, that makes it so; may be empty
    std::string reason;   // part of the line
};

Bytes Prepared(const Refusal& refusal) {
    Bytes bytes = FreshExt(kVolumeBytes, refusal.options);
    int exitCode = 0;
    const ScratchFile file;
    WriteImage(Pattern(3000, 1), file.Path());
    const std::string text = "debugfs -w -R \"write " + file.Path() + " here\" IMAGE";
    EXPECT_NE(ChangeBy(bytes, text, exitCode).find("Allocated inode"), std::string::npos);
    if (!refusal.request.empty()) ChangeBy(bytes, "debugfs -w -R \"" + refusal.request + "\" IMAGE", exitCode);
    return bytes;
}

class ExtRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(ExtRefusal, ReadsButChangesNothingAndSaysWhy) {
    TestVolume volume(Prepared(GetParam()));
    const Bytes before = volume.bytes;
    {
        Mounted mounted(volume);
        ASSERT_EQ(mounted.status, STATUS_SUCCESS);
        const std::string reason = mounted.fileSystem->ReadOnlyReason();
        EXPECT_NE(reason.find(GetParam().reason), std::string::npos) << reason;
        EXPECT_EQ(mounted.files->WriteFile(u"\\new", Pattern(10, 1)), STATUS_MEDIA_WRITE_PROTECTED);
        EXPECT_EQ(mounted.files->WriteFile(u"\\here", Pattern(10, 1)), STATUS_MEDIA_WRITE_PROTECTED);
        EXPECT_EQ(mounted.files->MakeDirectory(u"\\folder"), STATUS_MEDIA_WRITE_PROTECTED);
        EXPECT_EQ(mounted.files->Delete(u"\\here"), STATUS_MEDIA_WRITE_PROTECTED);
        Bytes bytes;
        EXPECT_EQ(mounted.files->ReadFile(u"\\here", bytes), STATUS_SUCCESS);
        EXPECT_TRUE(bytes == Pattern(3000, 1));
    }
    EXPECT_TRUE(volume.bytes == before);
}

INSTANTIATE_TEST_SUITE_P(
    Causes, ExtRefusal,
    ::testing::Values(Refusal{"-t ext4", "feature needs_recovery", "journal needs recovery"},
                      Refusal{"-t ext4", "ssv state 3", "has errors"},
                      Refusal{"-t ext2", "ssv state 0", "not unmounted cleanly"},
                      Refusal{"-t ext4", "ssv last_orphan 12", "left to be deleted"},
                      Refusal{"-t ext4 -O bigalloc -C 16384", "", "bigalloc"},
                      Refusal{"-t ext4 -O quota", "", "quota"}, Refusal{"-t ext4", "feature mmp", "mmp"},
                      Refusal{"-t ext4 -O casefold", "", "casefold"},
                      Refusal{"-t ext4 -O encrypt", "", "encrypt"},
                      Refusal{"-t ext4", "feature FEATURE_R29", "not known"},
                      Refusal{"-t ext4", "feature FEATURE_C29", "FEATURE_C29"}));

NTSTATUS MountStatus(const Bytes& bytes, std::uint32_t sector = 512) {
    TestVolume volume(bytes, sector);
    const NTSTATUS status = Mounted(volume).status;
    EXPECT_TRUE(volume.bytes == bytes);
    return status;
}

TEST(ExtMount, LeavesAloneWhatItCannotRead) {
    EXPECT_EQ(MountStatus(Bytes(kVolumeBytes)), STATUS_UNRECOGNIZED_VOLUME);
    EXPECT_EQ(MountStatus(Bytes(1024)), STATUS_DISK_CORRUPT_ERROR);
    EXPECT_EQ(MountStatus(Prepared({"-t ext4", "feature FEATURE_I29", ""})), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(MountStatus(FreshExt(kVolumeBytes, "-t ext4 -b 1024"), 4096), STATUS_NOT_SUPPORTED);
    Bytes cut = FreshExt(kVolumeBytes, "-t ext4");
    cut.resize(cut.size() - 4096);
    EXPECT_EQ(MountStatus(cut), STATUS_NOT_SUPPORTED);
    Bytes damaged = FreshExt(kVolumeBytes, "-t ext4");
    damaged[1024 + 100] ^= 1;
    EXPECT_EQ(MountStatus(damaged), STATUS_DISK_CORRUPT_ERROR);
}

TEST(ExtMount, LookingChangesNothingAndTheLookTellsTheKindApart) {
    TestVolume volume(FreshExt(kVolumeBytes, "-t ext4"));
    const Bytes before = volume.bytes;
    NTSTATUS status = STATUS_SUCCESS;
    {
        const auto mounted = machine::AnyFileSystem().mount(volume, status);
        ASSERT_NE(mounted, nullptr);
        EXPECT_EQ(mounted->DriverName(), u"\\FileSystem\\Ext4");
        std::vector<machine::DirectoryEntry> entries;
        auto& files = dynamic_cast<machine::GuestFileSystem&>(*mounted);
        ASSERT_EQ(files.List(u"\\", entries), STATUS_SUCCESS);
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].name, u"lost+found");
        EXPECT_EQ(files.Delete(u"\\lost+found"), STATUS_FILE_IS_A_DIRECTORY);
    }
    EXPECT_TRUE(volume.bytes == before);
    TestVolume ntfs(ntfs_test::FreshNtfs(kVolumeBytes, 512, 4096));
    const auto other = machine::AnyFileSystem().mount(ntfs, status);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->DriverName(), u"");
}

TEST(ExtMount, ANewDiskHasItsVolumeWhereItsTableSays) {
    const ScratchFile file;
    std::filesystem::remove(file.Path());
    machine::NewDisk disk;
    disk.path = file.Path();
    disk.size = 40 * kMiB;
    disk.volumes = {{12 * kMiB, FileSystemKind::Ntfs, 4096, "N"}, {0, FileSystemKind::Ext, 1024, "E"}};
    std::string error;
    ASSERT_TRUE(machine::CreateDisk(disk, error)) << error;
    machine::PartitionTable table;
    ASSERT_TRUE(machine::ReadImagePartitions(disk.path, disk.sectorSize, table, error)) << error;
    ASSERT_EQ(table.partitions.size(), 2u);
    EXPECT_EQ(table.partitions[0].gptType[0], 0xA2);
    EXPECT_EQ(table.partitions[1].gptType[0], 0xAF);
    const Bytes image = ReadImage(disk.path);
    const auto from = image.begin() + static_cast<std::ptrdiff_t>(table.partitions[1].offset);
    TestVolume volume(Bytes(from, from + static_cast<std::ptrdiff_t>(table.partitions[1].length)));
    EXPECT_TRUE(Sound(volume.bytes));
    Mounted mounted(volume);
    ASSERT_EQ(mounted.status, STATUS_SUCCESS);
    EXPECT_EQ(mounted.fileSystem->ReadOnlyReason(), "");
    disk.volumes[1].clusterSize = 8192;
    EXPECT_FALSE(machine::CreateDisk(disk, error));
    EXPECT_NE(error.find("block size 8192"), std::string::npos) << error;
}

TEST(ExtFailures, ARefusedRequestLeavesTheFileOrAVolumeThatAsksForItsCheck) {
    const Bytes& fresh = FreshExt(kVolumeBytes, "-t ext4");
    const Bytes data = Pattern(256 * 1024, 1);
    unsigned refused = 0, asking = 0;
    for (int nth = 0; refused == static_cast<unsigned>(nth); ++nth) {
        SCOPED_TRACE("write " + std::to_string(nth) + " refused");
        TestVolume volume(fresh);
        Mounted mounted(volume);
        ASSERT_EQ(mounted.files->WriteFile(u"\\file", Pattern(1000, 2)), STATUS_SUCCESS);
        int writes = 0;
        volume.verdict = [&](bool write) {
            return write && writes++ == nth ? STATUS_DISK_FULL : STATUS_SUCCESS;
        };
        const NTSTATUS status = mounted.files->WriteAt(u"\\file", 1000, data);
        volume.verdict = nullptr;
        if (NT_SUCCESS(status)) break;
        ++refused;
        EXPECT_EQ(status, STATUS_DISK_FULL);
        std::uint64_t space = 0;
        EXPECT_EQ(mounted.fileSystem->FreeSpace(space), STATUS_SUCCESS);
        asking += mounted.fileSystem->ReadOnly() ? 1 : 0;
        if (mounted.fileSystem->ReadOnly()) continue;
        EXPECT_TRUE(Sound(volume.bytes));
        Bytes bytes;
        EXPECT_EQ(mounted.files->ReadFile(u"\\file", bytes), STATUS_SUCCESS);
        EXPECT_TRUE(bytes == Pattern(1000, 2));
        EXPECT_EQ(mounted.files->WriteAt(u"\\file", 1000, data), STATUS_SUCCESS);
        EXPECT_TRUE(Sound(volume.bytes));
    }
    EXPECT_GE(refused, 5u);
    EXPECT_GE(asking, 2u);
    EXPECT_GE(refused - asking, 2u);
}

NTSTATUS ReadSome(host::OpenFile& file, Bytes& bytes) {
    bytes.resize(64 * 512);
    ULONG done = 0;
    const NTSTATUS status = file.Read(0, bytes.data(), static_cast<ULONG>(bytes.size()), done);
    bytes.resize(done);
    return status;
}

// Removes \gone and lets another file have its inode, and gives \stays other contents elsewhere.
void WorkAsAnotherSystem(TestVolume& volume) {
    Mounted other(volume);
    ASSERT_EQ(other.files->Delete(u"\\gone"), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\new", Pattern(5000, 3)), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\blocker", Pattern(60000, 4)), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\stays", Pattern(90000, 5)), STATUS_SUCCESS);
}

TEST(ExtSuspension, NothingIsTouchedMeanwhileAndNothingOldIsBelievedAfterwards) {
    TestVolume volume(FreshExt(kVolumeBytes, "-t ext4"));
    Mounted mounted(volume);
    ASSERT_EQ(mounted.files->WriteFile(u"\\gone", Pattern(20000, 1)), STATUS_SUCCESS);
    ASSERT_EQ(mounted.files->WriteFile(u"\\stays", Pattern(20000, 2)), STATUS_SUCCESS);
    auto gone = mounted.Open(HoldOpen(u"\\gone"));
    auto stays = mounted.Open(HoldOpen(u"\\stays"));
    mounted.fileSystem->Suspend();
    volume.requests.clear();
    Bytes bytes;
    EXPECT_EQ(ReadSome(*stays, bytes), STATUS_DEVICE_BUSY);
    mounted.Open(HoldOpen(u"\\new"), STATUS_DEVICE_BUSY);
    EXPECT_EQ(mounted.fileSystem->Delete(u"\\stays"), STATUS_DEVICE_BUSY);
    EXPECT_TRUE(volume.requests.empty());

    WorkAsAnotherSystem(volume);
    mounted.fileSystem->Resume();
    EXPECT_EQ(ReadSome(*gone, bytes), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(ReadSome(*stays, bytes), STATUS_SUCCESS);
    const Bytes expected = Pattern(90000, 5);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), expected.begin()));
    EXPECT_EQ(mounted.files->ReadFile(u"\\new", bytes), STATUS_SUCCESS);
    EXPECT_TRUE(bytes == Pattern(5000, 3));
    EXPECT_EQ(mounted.files->WriteFile(u"\\mine", Pattern(300000, 6)), STATUS_SUCCESS);
    gone.reset();
    stays.reset();
    EXPECT_TRUE(Sound(volume.bytes));
}

TEST(ExtSuspension, AVolumeThatChangedItsStateMeanwhileIsSeenAsItIs) {
    TestVolume volume(FreshExt(kVolumeBytes, "-t ext4"));
    Mounted mounted(volume);
    ASSERT_EQ(mounted.files->WriteFile(u"\\here", Pattern(10, 1)), STATUS_SUCCESS);
    mounted.fileSystem->Suspend();
    int exitCode = 0;
    ChangeBy(volume.bytes, "debugfs -w -R \"feature needs_recovery\" IMAGE", exitCode);
    mounted.fileSystem->Resume();
    EXPECT_EQ(mounted.files->Delete(u"\\here"), STATUS_MEDIA_WRITE_PROTECTED);
    mounted.fileSystem->Suspend();
    std::fill(volume.bytes.begin(), volume.bytes.end(), std::uint8_t{0});
    mounted.fileSystem->Resume();
    std::uint64_t free = 0;
    EXPECT_EQ(mounted.fileSystem->FreeSpace(free), STATUS_UNRECOGNIZED_VOLUME);
}

}  // namespace
