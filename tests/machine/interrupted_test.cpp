// Requests that fail and a power that fails while files are made, grown, moved and removed.
#include "tests/machine/format_support.h"

namespace {

using namespace format_test;

constexpr std::uint64_t kVolumeBytes =
    10 * kMiB;  // of ext with small blocks two groups: the superblock has a copy

// Work that takes, changes and, if `removing`, gives back space. Stops at the first failure and returns it.
NTSTATUS Work(const Mounted& mounted, bool removing = true) {
    machine::GuestFiles& files = *mounted.files;
    NTSTATUS status = files.MakeDirectory(u"\\new");
    if (NT_SUCCESS(status)) status = files.WriteFile(u"\\new\\one", Pattern(600000, 1));
    if (NT_SUCCESS(status)) status = files.WriteFile(u"\\new\\two", Pattern(3000, 2));
    if (NT_SUCCESS(status)) status = files.WriteAt(u"\\new\\two", 50001, Pattern(3000, 3));
    if (NT_SUCCESS(status)) status = files.WriteFile(u"\\victim", Pattern(500, 4));
    if (!NT_SUCCESS(status) || !removing) return status;
    status = files.Rename(u"\\new\\two", u"\\renamed");
    if (NT_SUCCESS(status) || status == STATUS_NOT_SUPPORTED) status = files.Delete(u"\\new\\one");
    return status;
}

class Interrupted : public ::testing::TestWithParam<Format> {
protected:
    Interrupted() : start(VolumeWithFiles()) {}

    Bytes VolumeWithFiles() const {
        TestVolume volume(GetParam().Fresh(kVolumeBytes));
        {
            const Mounted mounted(GetParam(), volume);
            EXPECT_EQ(mounted.files->WriteFile(u"\\keep", Pattern(70000, 9)), STATUS_SUCCESS);
            EXPECT_EQ(mounted.files->WriteFile(u"\\victim", Pattern(70000, 8)), STATUS_SUCCESS);
        }
        return volume.bytes;
    }

    std::vector<Request> RecordWork() const {
        TestVolume volume(start);
        const Mounted mounted(GetParam(), volume);
        EXPECT_EQ(Work(mounted), STATUS_SUCCESS);
        return volume.Writes();
    }

    static bool SaysItIsWhole(const Bytes& bytes) { return (bytes[1024 + 58] & 1) != 0; }

    // Brings a volume that was left in the middle in order, as its owner would. Returns what there was to say.
    std::string Repair(Bytes& bytes) const {
        if (GetParam().IsNtfs()) {
            TestVolume volume(bytes);
            EXPECT_EQ(Mounted(GetParam(), volume).status, STATUS_SUCCESS);  // the copy of the first records
            bytes = volume.bytes;
            return GetParam().Check(bytes).output;
        }
        if (SaysItIsWhole(bytes)) {
            EXPECT_TRUE(GetParam().Sound(bytes));
            return {};
        }
        const machine::ToolResult result = RunOn(bytes, "e2fsck", {"-fy"});
        EXPECT_LT(result.exitCode, 4) << result.output;  // from 4 on something is left
        return result.output;
    }

    // Space that nobody uses and names that are gone, but nothing in use that counts as free and no name
    // without its file.
    static void ExpectAtWorstLeaks(const std::string& output) {
        for (const char* worse :
             {"missing cluster", "multiple times", "differences:  +", " +(", "unused inode", "multiply"})
            EXPECT_EQ(output.find(worse), std::string::npos) << output;
    }

    void ExpectUsable(TestVolume& volume) const {
        const Mounted mounted(GetParam(), volume);
        ASSERT_EQ(mounted.status, STATUS_SUCCESS);
        EXPECT_EQ(mounted.fileSystem->ReadOnlyReason(), "");
        EXPECT_EQ(mounted.files->WriteFile(u"\\victim", Pattern(90000, 5)), STATUS_SUCCESS);
        EXPECT_EQ(mounted.files->Delete(u"\\victim"), STATUS_SUCCESS);
        Bytes read;
        EXPECT_EQ(mounted.files->ReadFile(u"\\keep", read), STATUS_SUCCESS);
        EXPECT_TRUE(read == Pattern(70000, 9));
    }

    const Bytes start;
};

TEST_P(Interrupted, AfterEachWriteTheVolumeIsWholeOrSaysThatItIsNotAndNothingIsLost) {
    const std::vector<Request> writes = RecordWork();
    ASSERT_GT(writes.size(), 25u);
    Bytes bytes = start;
    unsigned unclean = 0;
    for (std::size_t done = 0; !HasFailure(); ++done) {
        SCOPED_TRACE("after " + std::to_string(done) + " writes");
        unclean += SaysItIsWhole(bytes) ? 0 : 1;
        TestVolume volume(bytes);
        ExpectAtWorstLeaks(Repair(volume.bytes));
        ExpectUsable(volume);
        if (done == writes.size()) break;
        const Request& next = writes[done];
        std::copy(next.data.begin(), next.data.end(), bytes.begin() + static_cast<std::ptrdiff_t>(next.offset));
    }
    if (GetParam().IsNtfs()) return;
    EXPECT_GT(unclean, writes.size() / 3);
    EXPECT_TRUE(SaysItIsWhole(bytes));
}

// Everything ends with the request's status, from the very first call on, and the mount ends too. Reads fail
// where nothing is being removed: the NTFS library loses what it holds of a file when it cannot read in
// between.
TEST_P(Interrupted, APowerCutAtAnyRequestReachesTheCaller) {
    for (const bool removing : {true, false}) {
        for (unsigned n = 0; !HasFailure(); n += removing ? 1 : 3) {
            SCOPED_TRACE((removing ? "write " : "request ") + std::to_string(n));
            unsigned count = 0;
            TestVolume volume(start);
            const Mounted mounted(GetParam(), volume);
            const auto open = mounted.Open(HoldOpen(u"\\keep"));
            volume.verdict = [&](bool write) {
                if ((!removing || write) && count <= n) ++count;
                return count > n ? STATUS_DEVICE_POWERED_OFF : STATUS_SUCCESS;
            };
            const NTSTATUS status = Work(mounted, removing);
            if (count <= n) break;
            EXPECT_TRUE(status == STATUS_DEVICE_POWERED_OFF || status == STATUS_SUCCESS) << std::hex << status;
            std::vector<machine::DirectoryEntry> entries;
            EXPECT_EQ(mounted.files->List(u"\\", entries), STATUS_DEVICE_POWERED_OFF);
            EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_DEVICE_POWERED_OFF);
        }
    }
}

TEST_P(Interrupted, ARefusedWriteLeavesTheFileOrAVolumeThatAsksForItsCheck) {
    const Bytes data = Pattern(256 * 1024, 1);
    unsigned refused = 0, asking = 0;
    for (unsigned nth = 0; refused == nth && !HasFailure(); ++nth) {
        SCOPED_TRACE("write " + std::to_string(nth) + " refused");
        TestVolume volume(start);
        const Mounted mounted(GetParam(), volume);
        unsigned writes = 0;
        volume.verdict = [&](bool write) {
            return write && writes++ == nth ? STATUS_DISK_FULL : STATUS_SUCCESS;
        };
        const NTSTATUS status = mounted.files->WriteAt(u"\\victim", 70000, data);
        volume.verdict = nullptr;
        if (NT_SUCCESS(status)) break;
        ++refused;
        EXPECT_EQ(status, STATUS_DISK_FULL);
        std::uint64_t space = 0;
        EXPECT_EQ(mounted.fileSystem->FreeSpace(space), STATUS_SUCCESS);
        asking += mounted.fileSystem->ReadOnly() ? 1 : 0;
        if (mounted.fileSystem->ReadOnly()) continue;
        Bytes bytes;
        EXPECT_EQ(mounted.files->ReadFile(u"\\victim", bytes), STATUS_SUCCESS);
        EXPECT_TRUE(bytes == Pattern(70000, 8));
        EXPECT_EQ(mounted.files->WriteAt(u"\\victim", 70000, data), STATUS_SUCCESS);
        Bytes after = volume.bytes;
        ExpectAtWorstLeaks(Repair(after));
    }
    EXPECT_GE(refused, GetParam().IsNtfs() ? 3u : 5u);
    EXPECT_GE(asking, GetParam().IsNtfs() ? 0u : 2u);
    EXPECT_GE(refused - asking, 2u);
}

INSTANTIATE_TEST_SUITE_P(Formats, Interrupted,
                         ::testing::Values(kNtfs, Format{machine::MakeExtFormat, "-t ext4 -b 1024"},
                                           Format{machine::MakeExtFormat, "-t ext2 -b 1024"}));

}  // namespace
