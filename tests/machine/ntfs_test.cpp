#include <algorithm>
#include <set>
#include "tests/machine/ntfs_support.h"

namespace {

using namespace ntfs_test;
using machine::DirectoryEntry;
using machine::MountedFileSystem;

constexpr std::uint64_t kMiB = 1 << 20;

std::uint64_t Covered(const std::vector<Request>& requests) {
    std::uint64_t sum = 0;
    for (const Request& request : requests) sum += request.length;
    return sum;
}

// ---- what the driver learns from watching its files being written ------------------------------------------

struct Kind {
    std::uint32_t sector, cluster;
    std::uint64_t size;
};

class StorageFiles : public ::testing::TestWithParam<Kind> {};

TEST_P(StorageFiles, EachBlockArrivesAsDataOfTheFileAndStaysWhereItWas) {
    const Kind kind = GetParam();
    const ULONG block = kind.sector * 2048;
    const unsigned blocks = static_cast<unsigned>(20 * kMiB / block) + 1;
    TestVolume volume(FreshNtfs(kind.size, kind.sector, kind.cluster), kind.sector);
    Bytes all;
    {
        Mounted mounted(volume);
        ASSERT_EQ(mounted.status, STATUS_SUCCESS);
        auto file = OpenOrNull(*mounted.fileSystem, StorageOpen(u"\\kvr.SWP"));
        ASSERT_NE(file, nullptr);
        std::vector<std::vector<Request>> places;
        for (unsigned i = 0; i < blocks; ++i) {
            volume.requests.clear();
            const Bytes data = Pattern(block, i);
            ULONG done = 0;
            ASSERT_EQ(file->Write(LONGLONG{i} * block, data.data(), block, done), STATUS_SUCCESS);
            EXPECT_EQ(done, block);
            places.push_back(volume.Writes(u"\\kvr.SWP"));
            EXPECT_EQ(places.back().size(), 1u) << "a fresh volume has room for a block in one piece";
            EXPECT_EQ(Covered(places.back()), block);
            EXPECT_EQ(std::memcmp(volume.bytes.data() + places.back()[0].offset, data.data(), block), 0);
            EXPECT_FALSE(volume.Writes(u"\\$Mft").empty()) << "where the block lies must be stored with it";
            all.insert(all.end(), data.begin(), data.end());
        }
        volume.requests.clear();
        const Bytes again = Pattern(block, 99);
        ULONG done = 0;
        ASSERT_EQ(file->Write(block, again.data(), block, done), STATUS_SUCCESS);
        ASSERT_EQ(volume.requests.size(), 1u) << "an overwrite touches the data alone";
        EXPECT_EQ(volume.requests[0].offset, places[1][0].offset);
        std::copy(again.begin(), again.end(), all.begin() + block);

        Bytes odd(100);
        EXPECT_EQ(file->Write(1, odd.data(), kind.sector, done), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(file->Read(0, odd.data(), kind.sector, done), STATUS_ACCESS_DENIED);
        file.reset();
        DirectoryEntry entry;
        ASSERT_EQ(mounted.fileSystem->Query(u"\\KVR.swp", entry), STATUS_SUCCESS) << "case does not matter";
        EXPECT_EQ(entry.attributes & 0x6, 0x6u);
        EXPECT_EQ(entry.size, all.size());
    }
    EXPECT_TRUE(Sound(volume));
    EXPECT_TRUE(ReadFromOutside(volume, "/kvr.SWP") == all);
}

INSTANTIATE_TEST_SUITE_P(Sectors, StorageFiles,
                         ::testing::Values(Kind{512, 4096, 64 * kMiB}, Kind{4096, 4096, 96 * kMiB},
                                           Kind{512, 65536, 64 * kMiB}));

TEST(ConfigurationFile, SixteenSectorsAreSeenWhateverTheFileWasBefore) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    const std::u16string path = u"\\Windows\\System32\\drivers\\kvr.cfg";
    {
        Mounted mounted(volume);
        for (const char16_t* directory :
             {u"\\Windows", u"\\Windows\\System32", u"\\Windows\\System32\\drivers"})
            ASSERT_EQ(mounted.files->MakeDirectory(directory), STATUS_SUCCESS);
        for (const std::size_t before : {0u, 100u, 20000u}) {
            if (before > 0) {
                ASSERT_EQ(mounted.files->WriteFile(path, Pattern(before, 1)), STATUS_SUCCESS);
            }
            const host::FileOpen request{
                u"\\WINDOWS\\system32\\drivers\\kvr.cfg", 0x100003, 0, FILE_OPEN_IF, 0x2A, 0x80};
            auto file = OpenOrNull(*mounted.fileSystem, request);
            ASSERT_NE(file, nullptr);
            volume.requests.clear();
            const Bytes text = Pattern(8192, 7);
            ULONG done = 0;
            ASSERT_EQ(file->Write(0, text.data(), 8192, done), STATUS_SUCCESS);
            EXPECT_EQ(Covered(volume.Writes(request.path)), 8192u) << "with " << before << " bytes before";
        }
    }
    EXPECT_TRUE(Sound(volume));
    EXPECT_EQ(ReadFromOutside(volume, "/Windows/System32/drivers/kvr.cfg").size(), 20000u);
}

TEST(Metadata, RequestsCarryTheFileSystemsOwnNames) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    Mounted mounted(volume);
    ASSERT_EQ(mounted.files->MakeDirectory(u"\\many"), STATUS_SUCCESS);
    for (int i = 0; i < 120; ++i) {  // enough for the table of records to grow, too
        const std::string number = std::to_string(i);
        const std::u16string path =
            u"\\many\\a file with a longer name " + std::u16string(number.begin(), number.end());
        ASSERT_EQ(mounted.files->WriteFile(path, Pattern(5000, 1)), STATUS_SUCCESS);
    }
    std::set<std::u16string> names;
    for (const Request& request : volume.requests) {
        if (!request.write) continue;
        EXPECT_NE(request.file, nullptr);
        if (request.name.rfind(u"\\many\\", 0) != 0) names.insert(request.name);
        if (std::memcmp(volume.bytes.data() + request.offset, "INDX", 4) == 0) {
            EXPECT_TRUE(request.name == u"\\$Directory");
        }
    }
    EXPECT_EQ(names, (std::set<std::u16string>{u"\\$Mft", u"\\$MftMirr", u"\\$BitMap", u"\\$Directory"}));
    mounted.fileSystem.reset();
    EXPECT_TRUE(Sound(volume));
}

TEST(Space, AFullDiskLeavesWholeBlocksAndDeletionGivesAllOfItBack) {
    TestVolume volume(FreshNtfs(16 * kMiB, 512, 4096));
    {
        Mounted mounted(volume);
        std::uint64_t before = 0, full = 0, after = 0;
        ASSERT_EQ(mounted.files->WriteFile(u"\\first", {}), STATUS_SUCCESS);  // the table of records grows once
        ASSERT_EQ(mounted.files->WriteFile(u"\\second", {}), STATUS_SUCCESS);
        ASSERT_EQ(mounted.files->Delete(u"\\first"), STATUS_SUCCESS);
        ASSERT_EQ(mounted.files->Delete(u"\\second"), STATUS_SUCCESS);
        ASSERT_EQ(mounted.files->FreeSpace(before), STATUS_SUCCESS);
        NTSTATUS status = STATUS_SUCCESS;
        std::uint64_t written = 0;
        {
            auto file = OpenOrNull(*mounted.fileSystem, StorageOpen(u"\\kvr.SWP"));
            const Bytes block = Pattern(kMiB, 1);
            ULONG done = 0;
            while (NT_SUCCESS(status = file->Write(static_cast<LONGLONG>(written), block.data(), kMiB, done)))
                written += kMiB;
            EXPECT_EQ(status, STATUS_DISK_FULL);
            EXPECT_EQ(done, 0u);
        }
        ASSERT_EQ(mounted.files->FreeSpace(full), STATUS_SUCCESS);
        EXPECT_LT(full, kMiB + 65536) << "a block that fits somewhere must not be refused";
        DirectoryEntry entry;
        ASSERT_EQ(mounted.fileSystem->Query(u"\\kvr.SWP", entry), STATUS_SUCCESS);
        EXPECT_EQ(entry.size, written);
        EXPECT_EQ(OpenOrNull(*mounted.fileSystem, StorageOpen(u"\\kvr.SWP.01"), &status) != nullptr, true);
        EXPECT_EQ(mounted.files->WriteAt(u"\\kvr.SWP.01", std::uint64_t{1} << 40, Pattern(512, 1)),
                  STATUS_DISK_FULL);
        ASSERT_EQ(mounted.fileSystem->Delete(u"\\kvr.SWP"), STATUS_SUCCESS);
        ASSERT_EQ(mounted.fileSystem->Delete(u"\\kvr.SWP.01"), STATUS_SUCCESS);
        ASSERT_EQ(mounted.files->FreeSpace(after), STATUS_SUCCESS);
        EXPECT_EQ(after, before);
        EXPECT_EQ(mounted.fileSystem->Delete(u"\\kvr.SWP"), STATUS_OBJECT_NAME_NOT_FOUND);
    }
    EXPECT_TRUE(Sound(volume));
}

TEST(Space, FragmentedSpaceIsUsedInPieces) {
    TestVolume volume(FreshNtfs(16 * kMiB, 512, 4096));
    Bytes content;
    {
        Mounted mounted(volume);
        const auto name = [](int i) {
            const std::string number = std::to_string(i);
            return u"\\f" + std::u16string(number.begin(), number.end());
        };
        std::vector<std::pair<std::uint64_t, int>> places;  // of the files' data
        for (int i = 0; NT_SUCCESS(mounted.files->WriteFile(name(i), Pattern(16384, 1))); ++i)
            places.push_back({volume.Writes(name(i)).at(0).offset, i});
        ASSERT_GT(places.size(), 300u);
        std::sort(places.begin(), places.end());
        for (std::size_t i = 0; i < places.size(); i += 2)
            ASSERT_EQ(mounted.files->Delete(name(places[i].second)), STATUS_SUCCESS);
        auto file = OpenOrNull(*mounted.fileSystem, StorageOpen(u"\\kvr.SWP"));
        for (unsigned i = 0; i < 3; ++i) {
            volume.requests.clear();
            const Bytes block = Pattern(kMiB, i);
            ULONG done = 0;
            ASSERT_EQ(file->Write(LONGLONG(i * kMiB), block.data(), kMiB, done), STATUS_SUCCESS)
                << "block " << i;
            EXPECT_GT(volume.Writes(u"\\kvr.SWP").size(), 32u) << "holes of 16 KiB";
            EXPECT_EQ(Covered(volume.Writes(u"\\kvr.SWP")), kMiB);
            content.insert(content.end(), block.begin(), block.end());
        }
        file.reset();
        Bytes read;
        ASSERT_EQ(mounted.files->ReadFile(u"\\kvr.SWP", read), STATUS_SUCCESS);
        EXPECT_TRUE(read == content);
    }
    EXPECT_TRUE(Sound(volume));
    EXPECT_TRUE(ReadFromOutside(volume, "/kvr.SWP") == content);
}

TEST(Sharing, WhatTheDriverHoldsCannotBeReadWrittenMovedOrDeleted) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    Mounted mounted(volume);
    machine::GuestFiles& files = *mounted.files;
    ASSERT_EQ(files.MakeDirectory(u"\\d"), STATUS_SUCCESS);
    ASSERT_EQ(files.WriteFile(u"\\d\\held", Pattern(5000, 1)), STATUS_SUCCESS);
    auto held = OpenOrNull(*mounted.fileSystem, HoldOpen(u"\\d\\held"));
    ASSERT_NE(held, nullptr);
    Bytes read;
    EXPECT_EQ(files.ReadFile(u"\\d\\HELD", read), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(files.WriteFile(u"\\d\\held", read), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(files.Delete(u"\\d\\held"), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(files.Rename(u"\\d\\held", u"\\gone"), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(files.Rename(u"\\d", u"\\e"), STATUS_ACCESS_DENIED) << "nor can the directory above it move";
    held.reset();
    EXPECT_EQ(files.ReadFile(u"\\d\\held", read), STATUS_SUCCESS);
    EXPECT_EQ(read.size(), 5000u) << "a refused overwrite must not have emptied the file";
    EXPECT_EQ(files.Rename(u"\\d", u"\\e"), STATUS_SUCCESS);
    EXPECT_EQ(files.Delete(u"\\e\\held"), STATUS_SUCCESS);
}

TEST(Mounting, AHibernatedVolumeIsOnlyRead) {
    TestVolume hibernated(FreshNtfs(32 * kMiB, 512, 4096));
    Bytes header(8192, 0);
    std::memcpy(header.data(), "hibr", 4);
    ASSERT_EQ(Mounted(hibernated).files->WriteFile(u"\\hiberfil.sys", header), STATUS_SUCCESS);
    Mounted mounted(hibernated);
    ASSERT_EQ(mounted.status, STATUS_SUCCESS);
    EXPECT_TRUE(mounted.fileSystem->ReadOnly());
    EXPECT_EQ(mounted.files->WriteFile(u"\\new", header), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(mounted.files->WriteFile(u"\\hiberfil.sys", header), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(mounted.files->Delete(u"\\hiberfil.sys"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(mounted.files->ReadFile(u"\\hiberfil.sys", header), STATUS_SUCCESS);
}

// Work that takes, changes and gives back space. Stops at the first failure and returns it.
NTSTATUS Work(MountedFileSystem& fs) {
    machine::GuestFiles files(fs);
    NTSTATUS status = files.MakeDirectory(u"\\new");
    if (NT_SUCCESS(status)) status = files.WriteFile(u"\\new\\one", Pattern(100000, 1));
    if (NT_SUCCESS(status)) status = files.WriteFile(u"\\new\\two", Pattern(3000, 2));
    if (NT_SUCCESS(status)) status = files.WriteAt(u"\\new\\two", 50001, Pattern(3000, 3));
    if (NT_SUCCESS(status)) status = files.Rename(u"\\new\\one", u"\\renamed");
    if (NT_SUCCESS(status)) status = files.WriteFile(u"\\victim", Pattern(500, 4));
    if (NT_SUCCESS(status)) status = files.Delete(u"\\renamed");
    return status;
}

Bytes VolumeWithFiles() {
    TestVolume volume(FreshNtfs(8 * kMiB, 512, 4096));
    Mounted mounted(volume);
    EXPECT_EQ(mounted.files->WriteFile(u"\\keep", Pattern(70000, 9)), STATUS_SUCCESS);
    EXPECT_EQ(mounted.files->WriteFile(u"\\victim", Pattern(70000, 8)), STATUS_SUCCESS);
    mounted.fileSystem.reset();
    return volume.bytes;
}

void ExpectKept(machine::GuestFiles& files, unsigned n) {
    Bytes read;
    EXPECT_EQ(files.ReadFile(u"\\keep", read), STATUS_SUCCESS) << "request " << n;
    EXPECT_TRUE(read == Pattern(70000, 9)) << "request " << n;
}

// The power fails at request n, reads counted with the writes: everything ends with a status, and what was on
// the volume is there at the next mount.
TEST(Failures, APowerCutAtAnyRequestLeavesAVolumeThatMounts) {
    const Bytes image = VolumeWithFiles();
    for (const bool writesOnly : {true, false}) {
        for (unsigned n = 0;; n += writesOnly ? 1 : 3) {
            unsigned count = 0;
            TestVolume volume(image);
            const auto cut = [&](bool write) {
                if ((!writesOnly || write) && count <= n) ++count;
                return count > n ? STATUS_DEVICE_POWERED_OFF : STATUS_SUCCESS;
            };
            {
                Mounted mounted(volume);
                auto open = OpenOrNull(*mounted.fileSystem, HoldOpen(u"\\keep"));
                volume.verdict = cut;
                const NTSTATUS status = Work(*mounted.fileSystem);
                if (count <= n) break;
                EXPECT_TRUE(status == STATUS_DEVICE_POWERED_OFF || status == STATUS_SUCCESS)
                    << std::hex << status;
                std::vector<DirectoryEntry> entries;
                EXPECT_EQ(mounted.files->List(u"\\", entries), STATUS_DEVICE_POWERED_OFF);
                EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_DEVICE_POWERED_OFF);
            }
            volume.verdict = nullptr;
            if (writesOnly) {
                EXPECT_EQ(Mounted(volume).status,
                          STATUS_SUCCESS);  // brings the copy of the first records up to date
                EXPECT_TRUE(SoundButForLostClusters(volume)) << "request " << n;
            }
            Mounted mounted(volume);
            ASSERT_EQ(mounted.status, STATUS_SUCCESS) << "request " << n;
            ExpectKept(*mounted.files, n);
            std::vector<DirectoryEntry> entries;
            EXPECT_EQ(mounted.files->List(u"\\", entries), STATUS_SUCCESS) << "request " << n;
            EXPECT_EQ(mounted.files->WriteFile(u"\\victim", Pattern(90000, 5)), STATUS_SUCCESS)
                << "request " << n;
            EXPECT_EQ(mounted.files->Delete(u"\\victim"), STATUS_SUCCESS) << "request " << n;
            ExpectKept(*mounted.files, n);
            ASSERT_LT(n, 5000u);
        }
    }
}

}  // namespace
