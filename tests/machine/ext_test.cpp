// Which ext volumes are changed, which are only read and which are left alone, and what a guest finds there.
#include "tests/machine/format_support.h"

namespace {

using namespace format_test;

constexpr std::uint64_t kVolumeBytes = 16 * kMiB;

struct Refusal {
    const char* options;  // mke2fs's
    const char* request;  // debugfs's, that makes it so; may be empty
    const char* reason;   // part of the line
};

Bytes Prepared(const Refusal& refusal) {
    Bytes bytes = Format{machine::MakeExtFormat, refusal.options}.Fresh(kVolumeBytes);
    const TestFolder folder;
    WriteImage(Pattern(3000, 1), folder.File("here"));
    Debugfs(bytes, "write " + folder.File("here") + " here");
    if (*refusal.request != 0) Debugfs(bytes, refusal.request);
    return bytes;
}

class ExtRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(ExtRefusal, ReadsButChangesNothingAndSaysWhy) {
    TestVolume volume(Prepared(GetParam()));
    const Bytes before = volume.bytes;
    {
        const Mounted mounted(kExt4, volume);
        ASSERT_EQ(mounted.status, STATUS_SUCCESS);
        const std::string reason = mounted.fileSystem->ReadOnlyReason();
        EXPECT_NE(reason.find(GetParam().reason), std::string::npos) << reason;
        EXPECT_EQ(mounted.files->WriteFile(u"\\new", Pattern(10, 1)), STATUS_MEDIA_WRITE_PROTECTED);
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
    const NTSTATUS status = Mounted(kExt4, volume).status;
    EXPECT_TRUE(volume.bytes == bytes);
    return status;
}

TEST(Ext, LeavesAloneWhatItCannotRead) {
    EXPECT_EQ(MountStatus(Bytes(kVolumeBytes)), STATUS_UNRECOGNIZED_VOLUME);
    EXPECT_EQ(MountStatus(Bytes(1024)), STATUS_DISK_CORRUPT_ERROR);
    EXPECT_EQ(MountStatus(Prepared({"-t ext4", "feature FEATURE_I29", ""})), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(MountStatus(Prepared({"-t ext4 -b 1024", "", ""}), 4096), STATUS_NOT_SUPPORTED);
    Bytes cut = kExt4.Fresh(kVolumeBytes), damaged = cut;
    cut.resize(cut.size() - 4096);
    EXPECT_EQ(MountStatus(cut), STATUS_NOT_SUPPORTED);
    damaged[1024 + 100] ^= 1;
    EXPECT_EQ(MountStatus(damaged), STATUS_DISK_CORRUPT_ERROR);
}

TEST(Ext, StorageIsRootsAndImmutableAndMadeOfInitialisedBlocks) {
    TestVolume volume(kExt4.Fresh(kVolumeBytes));
    {
        const Mounted mounted(kExt4, volume);
        ULONG done = 0;
        EXPECT_EQ(mounted.Open(StorageOpen(u"\\kvr.SWP"))->Write(0, Pattern(100000, 1).data(), 65536, done),
                  STATUS_SUCCESS);
    }
    const std::string status = Debugfs(volume.bytes, "stat /kvr.SWP");
    for (const char* sign : {"Mode:  0600", "User:     0", "Flags: 0x80010"})
        EXPECT_NE(status.find(sign), std::string::npos) << status;
    EXPECT_EQ(status.find("[u]"), std::string::npos) << "an extent without data: " << status;
}

TEST(Ext, AVolumeThatChangedItsStateMeanwhileIsSeenAsItIs) {
    TestVolume volume(Prepared({"-t ext4", "", ""}));
    const Mounted mounted(kExt4, volume);
    mounted.fileSystem->Suspend();
    Debugfs(volume.bytes, "feature needs_recovery");
    mounted.fileSystem->Resume();
    EXPECT_EQ(mounted.files->Delete(u"\\here"), STATUS_MEDIA_WRITE_PROTECTED);
}

}  // namespace
