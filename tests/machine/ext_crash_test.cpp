// The power fails while files on an ext volume are made, grown and removed.
#include "ext_support.h"
#include "tests/doubles/recording_disk.h"

namespace {

using namespace ext_test;

constexpr std::uint64_t kVolumeBytes = 10 * kMiB;  // two groups: the superblock has a copy

// A volume that is a disk of its own.
class DiskVolume : public machine::VolumeIo {
public:
    explicit DiskVolume(machine::Disk& disk) : disk_(disk) {}
    std::uint32_t SectorSize() const override { return disk_.SectorSize(); }
    std::uint64_t Size() const override { return disk_.Size(); }
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint32_t length, PFILE_OBJECT) override {
        return disk_.Read(offset, buffer, length);
    }
    NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint32_t length, PFILE_OBJECT) override {
        return disk_.Write(offset, buffer, length);
    }
    NTSTATUS Flush() override { return disk_.Flush(); }
    PDEVICE_OBJECT Device() const override { return nullptr; }
    PVPB Vpb() const override { return nullptr; }

private:
    machine::Disk& disk_;
};

Bytes Contents(machine::Disk& disk) {
    Bytes bytes(disk.Size());
    EXPECT_EQ(disk.Read(0, bytes.data(), bytes.size()), STATUS_SUCCESS);
    return bytes;
}

std::unique_ptr<machine::MemoryDisk> DiskOf(const Bytes& bytes) {
    auto disk = std::make_unique<machine::MemoryDisk>(bytes.size(), 512);
    EXPECT_EQ(disk->Write(0, bytes.data(), bytes.size()), STATUS_SUCCESS);
    return disk;
}

class ExtCrash : public ::testing::TestWithParam<const char*> {
protected:
    // Records what making, growing, emptying and removing files writes beside one that nobody touches.
    void Record() {
        const auto start = DiskOf(FreshExt(kVolumeBytes, GetParam()));
        {
            DiskVolume volume(*start);
            Mounted mounted(volume);
            ASSERT_EQ(mounted.status, STATUS_SUCCESS);
            ASSERT_EQ(mounted.files->WriteFile(u"\\other", Pattern(100000, 7)), STATUS_SUCCESS);
            ASSERT_EQ(mounted.files->WriteFile(u"\\old", Pattern(60000, 8)), STATUS_SUCCESS);
        }
        disk = std::make_unique<machine::RecordingDisk>(*start);
        DiskVolume volume(*disk);
        Mounted mounted(volume);
        const Bytes data = Pattern(256 * 1024, 1);
        auto file = mounted.Open(StorageOpen(u"\\kvr.SWP"));
        ULONG done = 0;
        for (LONGLONG at = 0; at < 1 << 20; at += 256 * 1024)
            ASSERT_EQ(file->Write(at, data.data(), 256 * 1024, done), STATUS_SUCCESS);
        file.reset();
        ASSERT_EQ(mounted.files->MakeDirectory(u"\\folder"), STATUS_SUCCESS);
        ASSERT_EQ(mounted.files->WriteFile(u"\\old", Pattern(3000, 9)), STATUS_SUCCESS);
        ASSERT_EQ(mounted.files->Delete(u"\\kvr.SWP"), STATUS_SUCCESS);
    }

    // Returns what the check had to say.
    static std::string ExpectRepairable(Bytes bytes) {
        int exitCode = 0;
        std::string output = ChangeBy(bytes, "e2fsck -fp IMAGE", exitCode);
        // The exit code is in the status's second byte; from 4 on something is left.
        if (exitCode / 256 >= 4) output += ChangeBy(bytes, "e2fsck -fy IMAGE", exitCode);
        EXPECT_LT(exitCode / 256, 4) << output;
        const auto repaired = DiskOf(bytes);
        DiskVolume volume(*repaired);
        Mounted mounted(volume);
        EXPECT_EQ(mounted.status, STATUS_SUCCESS);
        if (mounted.files == nullptr) return output;
        EXPECT_FALSE(mounted.fileSystem->ReadOnly());
        Bytes other;
        EXPECT_EQ(mounted.files->ReadFile(u"\\other", other), STATUS_SUCCESS);
        EXPECT_TRUE(other == Pattern(100000, 7));
        return output;
    }

    // Space that nobody uses and names that are gone, but nothing in use that counts as free and no name
    // without its file.
    static void ExpectAtWorstLeaks(const std::string& output) {
        EXPECT_EQ(output.find("differences:  +"), std::string::npos) << output;
        EXPECT_EQ(output.find(" +("), std::string::npos) << output;
        EXPECT_EQ(output.find("unused inode"), std::string::npos) << output;
        EXPECT_EQ(output.find("multiply"), std::string::npos) << output;
    }

    std::unique_ptr<machine::RecordingDisk> disk;
};

bool CallsItselfClean(const Bytes& bytes) {
    return (bytes[1024 + 58] & 1) != 0;
}

TEST_P(ExtCrash, AVolumeThatIsNotWholeSaysSoAndIsRepaired) {
    ASSERT_NO_FATAL_FAILURE(Record());
    ASSERT_GT(disk->Writes(), 40u);
    unsigned unclean = 0;
    for (std::size_t writes = 0; writes <= disk->Writes() && !HasFailure(); ++writes) {
        SCOPED_TRACE("after " + std::to_string(writes) + " writes");
        const Bytes bytes = Contents(*disk->After(writes));
        if (CallsItselfClean(bytes)) {
            EXPECT_TRUE(Sound(bytes));
            continue;
        }
        ++unclean;
        ExpectAtWorstLeaks(ExpectRepairable(bytes));
    }
    EXPECT_GT(unclean, disk->Writes() / 3);
    EXPECT_TRUE(CallsItselfClean(Contents(*disk->After(disk->Writes()))));
}

// The disk's own cache goes as well, with any part of what was written.
TEST_P(ExtCrash, AVolumeThatLostAnyOfItsWritesIsRepaired) {
    ASSERT_NO_FATAL_FAILURE(Record());
    for (std::uint64_t seed = 1; seed <= 12 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::size_t writes = disk->Writes() * seed / 12;
        ExpectRepairable(Contents(*disk->AfterCut(writes, machine::RecordingDisk::LoseSome(seed))));
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ExtCrash, ::testing::Values("-t ext4 -b 1024", "-t ext2 -b 1024"));

}  // namespace
