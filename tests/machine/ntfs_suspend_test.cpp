// A mount that stands back while somebody else changes the volume below it.
#include <algorithm>
#include "ntfs_support.h"

namespace {

using namespace ntfs_test;

constexpr std::uint64_t kVolumeBytes = 8 * 1024 * 1024;

NTSTATUS ReadSome(host::OpenFile& file, Bytes& bytes) {
    bytes.resize(192 * 512);
    ULONG done = 0;
    const NTSTATUS status = file.Read(0, bytes.data(), static_cast<ULONG>(bytes.size()), done);
    bytes.resize(done);
    return status;
}

// Deletes \gone and lets another file have its record, and gives \stays other contents elsewhere.
void WorkAsAnotherSystem(TestVolume& volume) {
    Mounted other(volume);
    ASSERT_EQ(other.status, STATUS_SUCCESS);
    ASSERT_EQ(other.files->Delete(u"\\gone"), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\new", Pattern(5000, 3)), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\blocker", Pattern(60000, 4)), STATUS_SUCCESS);
    ASSERT_EQ(other.files->WriteFile(u"\\stays", Pattern(90000, 5)), STATUS_SUCCESS);
}

TEST(Suspension, NothingIsTouchedMeanwhileAndNothingOldIsBelievedAfterwards) {
    TestVolume volume(FreshNtfs(kVolumeBytes, 512, 4096));
    Mounted mounted(volume);
    ASSERT_EQ(mounted.files->WriteFile(u"\\gone", Pattern(20000, 1)), STATUS_SUCCESS);
    ASSERT_EQ(mounted.files->WriteFile(u"\\stays", Pattern(20000, 2)), STATUS_SUCCESS);
    auto gone = OpenOrNull(*mounted.fileSystem, HoldOpen(u"\\gone"));
    auto stays = OpenOrNull(*mounted.fileSystem, HoldOpen(u"\\stays"));
    ASSERT_TRUE(gone != nullptr && stays != nullptr);

    mounted.fileSystem->Suspend();
    volume.requests.clear();
    Bytes bytes;
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(ReadSome(*stays, bytes), STATUS_DEVICE_BUSY);
    EXPECT_EQ(OpenOrNull(*mounted.fileSystem, HoldOpen(u"\\new"), &status), nullptr);
    EXPECT_EQ(status, STATUS_DEVICE_BUSY);
    EXPECT_EQ(mounted.fileSystem->Delete(u"\\stays"), STATUS_DEVICE_BUSY);
    EXPECT_TRUE(volume.requests.empty());

    WorkAsAnotherSystem(volume);
    mounted.fileSystem->Resume();
    EXPECT_EQ(ReadSome(*gone, bytes), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(ReadSome(*stays, bytes), STATUS_SUCCESS);
    EXPECT_TRUE(bytes == Pattern(90000, 5));
    // The record that \gone had is free for its new owner, though the old file is still open.
    EXPECT_EQ(mounted.files->ReadFile(u"\\new", bytes), STATUS_SUCCESS);
    EXPECT_TRUE(bytes == Pattern(5000, 3));
    EXPECT_EQ(mounted.files->WriteFile(u"\\mine", Pattern(30000, 6)), STATUS_SUCCESS);
    gone.reset();
    stays.reset();
    EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_SUCCESS);
    EXPECT_TRUE(Sound(volume));
}

// The sizes in the directory are due with the last close of a file that was written: they are there before the
// other one comes, and a dismount behind its back writes nothing more.
TEST(Suspension, WhatIsDueIsWrittenBeforeAndNothingAtADismountMeanwhile) {
    TestVolume volume(FreshNtfs(kVolumeBytes, 512, 4096));
    Mounted mounted(volume);
    auto file = OpenOrNull(*mounted.fileSystem, StorageOpen(u"\\written"));
    ASSERT_NE(file, nullptr);
    ULONG done = 0;
    ASSERT_EQ(file->Write(0, Pattern(65536, 1).data(), 65536, done), STATUS_SUCCESS);
    mounted.fileSystem->Suspend();
    EXPECT_TRUE(Sound(volume));
    const Bytes before = volume.bytes;
    EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_SUCCESS);
    file.reset();
    EXPECT_TRUE(volume.bytes == before);
}

TEST(Suspension, AVolumeThatBecameSomethingElseIsNotRecognised) {
    TestVolume volume(FreshNtfs(kVolumeBytes, 512, 4096));
    Mounted mounted(volume);
    mounted.fileSystem->Suspend();
    std::fill(volume.bytes.begin(), volume.bytes.end(), std::uint8_t{0});
    mounted.fileSystem->Resume();
    std::uint64_t free = 0;
    EXPECT_EQ(mounted.fileSystem->FreeSpace(free), STATUS_UNRECOGNIZED_VOLUME);
    EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_SUCCESS);
}

// Whoever boots a machine to look at a volume must not find it changed.
TEST(Mounting, WritesNothingToASoundVolume) {
    TestVolume volume(FreshNtfs(kVolumeBytes, 512, 4096));
    const Bytes before = volume.bytes;
    {
        Mounted mounted(volume);
        std::vector<machine::DirectoryEntry> entries;
        ASSERT_EQ(mounted.files->List(u"\\", entries), STATUS_SUCCESS);
    }
    EXPECT_TRUE(volume.bytes == before);
}

}  // namespace
