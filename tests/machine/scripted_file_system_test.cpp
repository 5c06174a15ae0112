// Scripted files: placement, growth, sharing and failures as the script says.
#include "machine/scripted_file_system.h"
#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace machine;

// A volume in memory that remembers its requests.
class FakeIo final : public VolumeIo {
public:
    std::uint32_t SectorSize() const override { return 512; }
    std::uint64_t Size() const override { return bytes_.size(); }
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint32_t length, PFILE_OBJECT) override {
        std::memcpy(buffer, &bytes_.at(offset), length);
        return fail_;
    }
    NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint32_t length, PFILE_OBJECT file) override {
        writes_.push_back({offset, length});
        name_.assign(file->FileName.Buffer, file->FileName.Length / 2);
        std::memcpy(&bytes_.at(offset), buffer, length);
        return fail_;
    }
    NTSTATUS Flush() override { return fail_; }
    PDEVICE_OBJECT Device() const override { return nullptr; }
    PVPB Vpb() const override { return nullptr; }

    std::vector<UCHAR> bytes_ = std::vector<UCHAR>(1 << 20);
    std::vector<Extent> writes_;
    std::u16string name_;
    NTSTATUS fail_ = STATUS_SUCCESS;
};

class Scripted : public ::testing::Test {
protected:
    NTSTATUS Open(const std::u16string& path, ULONG disposition, std::unique_ptr<host::OpenFile>& file,
                  ACCESS_MASK access = FILE_READ_DATA | FILE_WRITE_DATA, ULONG share = 0, ULONG options = 0,
                  ULONG attributes = FILE_ATTRIBUTE_NORMAL) {
        file.reset();
        return files_->Open({path, access, share, disposition, options, attributes}, file, information_);
    }
    FakeIo io_;
    std::shared_ptr<ScriptedVolume> volume_ = std::make_shared<ScriptedVolume>(65536, 65536 + 10 * 4096, 4096);
    std::unique_ptr<ScriptedFileSystem> files_ = std::make_unique<ScriptedFileSystem>(io_, volume_);
    ULONG_PTR information_ = 0;
    std::unique_ptr<host::OpenFile> file_;
    ULONG done_ = 0;
};

TEST_F(Scripted, PlacementFollowsTheScript) {
    volume_->SetPlacement(8192, 4096);
    ASSERT_EQ(STATUS_SUCCESS, Open(u"\\kvr.SWP", FILE_OVERWRITE_IF, file_));
    EXPECT_EQ(FILE_CREATED, information_);
    std::vector<UCHAR> data(16384);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<UCHAR>(i / 512);
    ASSERT_EQ(STATUS_SUCCESS, file_->Write(0, data.data(), 16384, done_));
    const std::vector<Extent> places = {{65536, 8192}, {65536 + 12288, 8192}};
    EXPECT_EQ(places, io_.writes_);
    EXPECT_EQ(places, volume_->ExtentsOf(u"\\KVR.swp"));
    EXPECT_EQ(u"\\kvr.SWP", io_.name_);
    std::vector<UCHAR> back(20000);
    ASSERT_EQ(STATUS_SUCCESS, file_->Read(4096, back.data(), 20000, done_));
    ASSERT_EQ(12288u, done_);
    EXPECT_EQ(0, std::memcmp(back.data(), &data[4096], done_));
    EXPECT_EQ(STATUS_END_OF_FILE, file_->Read(16384, back.data(), 1, done_));
    // Overwriting reuses the same places; a partial sector keeps its neighbours.
    ASSERT_EQ(STATUS_SUCCESS, file_->Write(8190, "abcd", 4, done_));
    ASSERT_EQ(STATUS_SUCCESS, file_->Read(8188, back.data(), 8, done_));
    EXPECT_EQ(0, std::memcmp(back.data(),
                             "\x0F\x0F"
                             "abcd\x10\x10",
                             8));
    EXPECT_EQ(places, volume_->ExtentsOf(u"\\kvr.SWP"));
}

TEST_F(Scripted, SpaceRunsOutAndComesBack) {
    std::vector<UCHAR> data(65536);
    ASSERT_EQ(STATUS_SUCCESS, Open(u"\\a", FILE_CREATE, file_));
    EXPECT_EQ(STATUS_DISK_FULL, file_->Write(0, data.data(), 11 * 4096, done_));
    EXPECT_EQ(0u, volume_->SizeOf(u"\\a"));
    ASSERT_EQ(STATUS_SUCCESS, file_->Write(0, data.data(), 10 * 4096, done_))
        << "the refused growth took nothing";
    std::unique_ptr<host::OpenFile> other;
    ASSERT_EQ(STATUS_SUCCESS, Open(u"\\b", FILE_CREATE, other));
    EXPECT_EQ(STATUS_DISK_FULL, other->Write(0, data.data(), 1, done_));
    file_.reset();
    const auto saved = volume_->Save();
    ASSERT_EQ(STATUS_SUCCESS, files_->Delete(u"\\A"));
    ASSERT_EQ(STATUS_SUCCESS, other->Write(0, data.data(), 10 * 4096, done_));
    EXPECT_EQ((std::vector<Extent>{{65536, 10 * 4096}}), volume_->ExtentsOf(u"\\b"))
        << "freed space is whole again";
    other.reset();
    for (const bool lowFirst : {true, false}) {
        ASSERT_EQ(STATUS_SUCCESS, files_->Delete(u"\\b"));
        ASSERT_EQ(STATUS_SUCCESS, Open(u"\\c", FILE_CREATE, file_));
        ASSERT_EQ(STATUS_SUCCESS, Open(u"\\d", FILE_CREATE, other));
        ASSERT_EQ(STATUS_SUCCESS, file_->Write(0, data.data(), 5 * 4096, done_));
        ASSERT_EQ(STATUS_SUCCESS, other->Write(0, data.data(), 5 * 4096, done_));
        file_.reset(), other.reset();
        ASSERT_EQ(STATUS_SUCCESS, files_->Delete(lowFirst ? u"\\c" : u"\\d"));
        ASSERT_EQ(STATUS_SUCCESS, files_->Delete(lowFirst ? u"\\d" : u"\\c"));
        ASSERT_EQ(STATUS_SUCCESS, Open(u"\\b", FILE_CREATE, other));
        ASSERT_EQ(STATUS_SUCCESS, other->Write(0, data.data(), 10 * 4096, done_));
        EXPECT_EQ(1u, volume_->ExtentsOf(u"\\b").size());
        if (lowFirst) other.reset();
    }
    volume_->SetFileLimit(4096);
    EXPECT_EQ(STATUS_DISK_FULL, other->Write(0, data.data(), 8192, done_));
    other.reset();
    volume_->Restore(*saved);
    EXPECT_TRUE(volume_->Exists(u"\\a"));
    EXPECT_EQ(0u, volume_->SizeOf(u"\\b"));
}

TEST_F(Scripted, OpensAndSharing) {
    std::unique_ptr<host::OpenFile> other;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Open(u"\\a", FILE_OPEN, file_));
    constexpr ULONG kHidden = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    ASSERT_EQ(STATUS_SUCCESS, Open(u"\\a", FILE_OPEN_IF, file_, FILE_WRITE_DATA, FILE_SHARE_READ, 0, kHidden));
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, Open(u"\\A", FILE_CREATE, other));
    EXPECT_EQ(STATUS_SHARING_VIOLATION, Open(u"\\A", FILE_OPEN, other, FILE_READ_DATA, FILE_SHARE_READ));
    EXPECT_EQ(STATUS_SUCCESS,
              Open(u"\\A", FILE_OPEN, other, FILE_READ_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE));
    EXPECT_EQ(STATUS_SHARING_VIOLATION, files_->Delete(u"\\a"));
    other.reset();
    file_.reset();
    EXPECT_EQ(STATUS_ACCESS_DENIED, Open(u"\\a", FILE_OVERWRITE_IF, file_));
    EXPECT_EQ(STATUS_SUCCESS, Open(u"\\a", FILE_OVERWRITE_IF, file_, FILE_WRITE_DATA, 0, 0, kHidden));
    EXPECT_EQ(FILE_OVERWRITTEN, information_);
    volume_->FailOpen(u"\\A", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Open(u"\\a", FILE_OPEN, other));
    volume_->FailOpen(u"\\A", STATUS_SUCCESS);
    // A machine that starts again finds nobody holding the file.
    files_->Abandon();
    ScriptedFileSystem again(io_, volume_);
    EXPECT_EQ(STATUS_SUCCESS, again.Open({u"\\a", FILE_READ_DATA, 0, FILE_OPEN, 0, 0}, other, information_));
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, file_->Write(0, "x", 1, done_));
}

TEST_F(Scripted, FailuresComeWhereTheyAreScripted) {
    std::vector<UCHAR> data(16384);
    volume_->SetPlacement(4096, 0);
    ASSERT_EQ(STATUS_SUCCESS,
              Open(u"\\a", FILE_CREATE, file_, FILE_WRITE_DATA, 0, FILE_NO_INTERMEDIATE_BUFFERING));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, file_->Write(0, data.data(), 100, done_))
        << "unbuffered: whole sectors";
    volume_->FailWrite(2, STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(STATUS_SUCCESS, file_->Write(0, data.data(), 4096, done_));
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, file_->Write(4096, data.data(), 4096, done_));
    EXPECT_EQ(0u, done_);
    EXPECT_EQ(4096u, volume_->SizeOf(u"\\a"));
    EXPECT_EQ(1u, io_.writes_.size()) << "a scripted failure is not sent";
    EXPECT_EQ(STATUS_SUCCESS, file_->Write(4096, data.data(), 4096, done_));
    io_.fail_ = STATUS_MEDIA_WRITE_PROTECTED;
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, file_->Write(0, data.data(), 4096, done_));
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, files_->Dismount());
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(nullptr, ScriptedDriver(volume_).mount(io_, status));
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, status);
}

}  // namespace
