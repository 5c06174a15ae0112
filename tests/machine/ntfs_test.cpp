#include <algorithm>
#include <set>
#include "machine/ntfs_directory.h"
#include "machine/ntfs_volume.h"
#include "tests/machine/ntfs_support.h"

namespace {

using namespace ntfs_test;
using machine::DirectoryEntry;
using machine::NtfsFileSystem;

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

TEST(ConfigurationFile, AResidentFileMovesOutWithoutWritesBesidesItsData) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    ScratchFile image, text;
    std::ofstream(text.Path()) << std::string(612, 'x');
    std::ofstream(image.Path(), std::ios::binary)
        .write(reinterpret_cast<const char*>(volume.bytes.data()), static_cast<std::streamsize>(volume.Size()));
    int exitCode = 0;
    const std::string output = RunTool("ntfscp -f " + image.Path() + " " + text.Path() + " /kvr.cfg", exitCode);
    ASSERT_EQ(exitCode, 0) << output;
    std::ifstream(image.Path(), std::ios::binary)
        .read(reinterpret_cast<char*>(volume.bytes.data()), static_cast<std::streamsize>(volume.Size()));
    {
        Mounted mounted(volume);
        Bytes bytes;
        ASSERT_EQ(mounted.files->ReadFile(u"\\kvr.cfg", bytes), STATUS_SUCCESS);
        EXPECT_EQ(bytes, Bytes(612, 'x'));
        volume.requests.clear();
        ASSERT_EQ(mounted.files->WriteAt(u"\\kvr.cfg", 0, Pattern(8192, 3)), STATUS_SUCCESS);
        EXPECT_EQ(Covered(volume.Writes(u"\\kvr.cfg")), 8192u);
    }
    EXPECT_TRUE(Sound(volume));
    EXPECT_EQ(ReadFromOutside(volume, "/kvr.cfg"), Pattern(8192, 3));
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

TEST(PagingFile, KeepsOneFileObjectForTheWholeMount) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    Mounted mounted(volume);
    std::set<PFILE_OBJECT> objects;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(mounted.files->WriteAt(u"\\PageFile.sys", 0, Pattern(4096, 1)), STATUS_SUCCESS);
        ASSERT_EQ(mounted.files->WriteFile(u"\\other", Pattern(4096, 1)), STATUS_SUCCESS);
    }
    for (const Request& request : volume.Writes(u"\\PageFile.sys")) objects.insert(request.file);
    EXPECT_EQ(objects.size(), 1u);
    for (const Request& request : volume.Writes(u"\\other")) EXPECT_FALSE(objects.contains(request.file));
}

// ---- space ---------------------------------------------------------------------------------------------

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

// ---- contents against a model
// --------------------------------------------------------------------------------

TEST(Contents, RandomWritesReadsAndTruncationsMatchAnArray) {
    for (const std::uint32_t sector : {512u, 4096u}) {
        TestVolume volume(FreshNtfs(32 * kMiB, sector, 4096), sector);
        Mounted mounted(volume);
        Bytes model;
        ASSERT_EQ(mounted.files->WriteFile(u"\\f", model), STATUS_SUCCESS);
        std::uint32_t state = sector;
        const auto random = [&](std::uint32_t limit) {
            return (state = state * 1103515245u + 12345u) / 7 % limit;
        };
        for (unsigned step = 0; step < 300; ++step) {
            const std::uint64_t offset = random(3) == 0 ? random(200000) / sector * sector : random(200000);
            const std::size_t length = random(3) == 0 ? (random(8) + 1) * sector : random(20000) + 1;
            if (random(40) == 0) {
                model = Pattern(random(3000), step);
                ASSERT_EQ(mounted.files->WriteFile(u"\\f", model), STATUS_SUCCESS);
            } else if (random(2) == 0) {
                const Bytes data = Pattern(length, step);
                ASSERT_EQ(mounted.files->WriteAt(u"\\f", offset, data), STATUS_SUCCESS);
                if (model.size() < offset + length) model.resize(offset + length, 0);
                std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
            }
            Bytes read;
            const NTSTATUS status = mounted.files->ReadAt(u"\\f", offset, length, read);
            const std::size_t from = std::min<std::size_t>(offset, model.size());
            const std::size_t to = std::min<std::size_t>(offset + length, model.size());
            ASSERT_EQ(status, from == model.size() ? STATUS_END_OF_FILE : STATUS_SUCCESS) << "step " << step;
            ASSERT_TRUE(std::equal(read.begin(), read.end(), model.begin() + static_cast<std::ptrdiff_t>(from),
                                   model.begin() + static_cast<std::ptrdiff_t>(to)))
                << "step " << step;
        }
        mounted.fileSystem.reset();
        EXPECT_TRUE(Sound(volume));
        EXPECT_TRUE(ReadFromOutside(volume, "/f") == model);
    }
}

// Makes an empty file that is kept compressed, or one with a hole of 100000 bytes.
void MakeSpecialFile(TestVolume& io, bool compressed) {
    using namespace ntfs_library;
    machine::NtfsVolume volume(io);
    const machine::NtfsLockGuard guard(volume.Lock());
    ASSERT_EQ(volume.Mount(), STATUS_SUCCESS);
    const auto make = [&](const machine::NtfsOperation& operation) {
        std::uint64_t reference = 0;
        machine::NtfsInode inode;
        NTSTATUS status = machine::CreateNtfsEntry(operation, {FILE_root, u"special"}, false, 0, reference);
        if (NT_SUCCESS(status)) status = machine::OpenNtfsInode(operation, reference, inode);
        if (!NT_SUCCESS(status)) return status;
        int result = 0;
        if (compressed) {
            inode.Get()->flags = static_cast<FILE_ATTR_FLAGS>(inode.Get()->flags | FILE_ATTR_COMPRESSED);
            result = ntfs_attr_set_flags(inode.Get(), AT_DATA, AT_UNNAMED, 0, ATTR_IS_COMPRESSED,
                                         ATTR_COMPRESSION_MASK);
        } else {
            const auto data = machine::NtfsAttribute::OpenData(inode);
            result = ntfs_attr_truncate(data.Get(), 100000);
        }
        return result == 0 && inode.Close() ? STATUS_SUCCESS : operation.Failed(errno);
    };
    ASSERT_EQ(volume.Change(machine::CommitOrder::TakeFirst, volume.DirectoryObject(), make), STATUS_SUCCESS);
}

TEST(Contents, CompressedAndSparseFilesReadAndGrow) {
    for (const bool compressed : {true, false}) {
        TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
        MakeSpecialFile(volume, compressed);
        Bytes model(compressed ? 0 : 100000, 0);
        {
            Mounted mounted(volume);
            volume.requests.clear();
            for (unsigned i = 0; i < 12; ++i) {
                const std::uint64_t offset = i * 7919 % 150000;
                Bytes data = i % 2 == 0 ? Pattern(30000, i) : Bytes(30000, static_cast<std::uint8_t>(i));
                if (compressed) data.resize(20000 + i);  // only ever grows by appending
                const std::uint64_t at = compressed ? model.size() : offset;
                ASSERT_EQ(mounted.files->WriteAt(u"\\special", at, data), STATUS_SUCCESS) << "write " << i;
                if (model.size() < at + data.size()) model.resize(at + data.size(), 0);
                std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(at));
            }
            Bytes read;
            ASSERT_EQ(mounted.files->ReadFile(u"\\special", read), STATUS_SUCCESS);
            EXPECT_TRUE(read == model);
            EXPECT_FALSE(volume.Writes(u"\\special").empty())
                << "the data carries the file's name all the same";
        }
        EXPECT_TRUE(Sound(volume));
        EXPECT_TRUE(ReadFromOutside(volume, "/special") == model);
        Mounted mounted(volume);
        EXPECT_EQ(mounted.files->WriteFile(u"\\special", Pattern(5000, 1)), STATUS_SUCCESS);
        EXPECT_EQ(mounted.files->Delete(u"\\special"), STATUS_SUCCESS);
        mounted.fileSystem.reset();
        EXPECT_TRUE(Sound(volume));
    }
}

// Another system may leave anything behind a file's end in its last sector.
TEST(Contents, WhatLiesBehindTheEndNeverBecomesPartOfTheFile) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    Mounted mounted(volume);
    ASSERT_EQ(mounted.files->WriteFile(u"\\f", Bytes(100, 1)), STATUS_SUCCESS);
    const std::uint64_t at = volume.Writes(u"\\f").at(0).offset;
    std::fill_n(volume.bytes.begin() + static_cast<std::ptrdiff_t>(at) + 100, 4096 - 100, std::uint8_t{0xEE});
    ASSERT_EQ(mounted.files->WriteAt(u"\\f", 300, Bytes(1000, 2)), STATUS_SUCCESS);
    Bytes expected(1300, 2), read;
    std::fill_n(expected.begin(), 300, std::uint8_t{0});
    std::fill_n(expected.begin(), 100, std::uint8_t{1});
    ASSERT_EQ(mounted.files->ReadFile(u"\\f", read), STATUS_SUCCESS);
    EXPECT_EQ(read, expected);
}

// ---- directories and names
// -------------------------------------------------------------------------------------

TEST(Names, DirectoriesListRenameAndDelete) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    {
        Mounted mounted(volume);
        machine::GuestFiles& files = *mounted.files;
        ASSERT_EQ(files.MakeDirectory(u"\\Docs"), STATUS_SUCCESS);
        ASSERT_EQ(files.MakeDirectory(u"\\Docs\\Deep"), STATUS_SUCCESS);
        ASSERT_EQ(files.WriteFile(u"\\Docs\\Deep\\Report.TXT", Pattern(3000, 1)), STATUS_SUCCESS);
        EXPECT_EQ(files.MakeDirectory(u"\\dOCS"), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(files.WriteFile(u"\\Docs", Pattern(1, 1)), STATUS_FILE_IS_A_DIRECTORY);
        EXPECT_EQ(files.WriteFile(u"\\none\\x", Pattern(1, 1)), STATUS_OBJECT_PATH_NOT_FOUND);
        EXPECT_EQ(files.WriteFile(u"\\Docs\\Deep\\Report.TXT\\x", Pattern(1, 1)), STATUS_OBJECT_PATH_NOT_FOUND);
        EXPECT_EQ(files.WriteFile(u"\\a?b", Pattern(1, 1)), STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(files.WriteFile(u"\\a\\\\b", Pattern(1, 1)), STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(files.WriteFile(u"\\$Mft", Pattern(1, 1)), STATUS_ACCESS_DENIED);
        EXPECT_EQ(files.Delete(u"\\Docs\\Deep"), STATUS_DIRECTORY_NOT_EMPTY);
        EXPECT_EQ(files.Rename(u"\\Docs", u"\\Docs\\Deep\\Docs"), STATUS_INVALID_PARAMETER);

        ASSERT_EQ(files.Rename(u"\\docs\\deep\\report.txt", u"\\Docs\\final.txt"), STATUS_SUCCESS);
        ASSERT_EQ(files.Rename(u"\\Docs\\Deep", u"\\Moved"), STATUS_SUCCESS);
        bool exists = true;
        EXPECT_EQ(files.Exists(u"\\Docs\\Deep\\Report.TXT", exists), STATUS_SUCCESS);
        EXPECT_FALSE(exists);
        std::vector<DirectoryEntry> entries;
        ASSERT_EQ(files.List(u"\\", entries), STATUS_SUCCESS);
        std::set<std::u16string> names;
        for (const DirectoryEntry& entry : entries) names.insert(entry.name);
        EXPECT_EQ(names, (std::set<std::u16string>{u"Docs", u"Moved"}))
            << "without the file system's own files";
        ASSERT_EQ(files.List(u"\\Docs", entries), STATUS_SUCCESS);
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_TRUE(entries[0].name == u"final.txt" && entries[0].size == 3000 && !entries[0].directory);
        EXPECT_EQ(files.Delete(u"\\Moved"), STATUS_SUCCESS);
        Bytes read;
        ASSERT_EQ(files.ReadFile(u"\\Docs\\final.txt", read), STATUS_SUCCESS);
        EXPECT_EQ(read, Pattern(3000, 1));
    }
    EXPECT_TRUE(Sound(volume));
    EXPECT_EQ(ReadFromOutside(volume, "/Docs/final.txt"), Pattern(3000, 1));
}

// ---- share access
// ----------------------------------------------------------------------------------------------

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

TEST(Sharing, AFileWhoseOpensShareDeletionGoesWithTheLastOfThem) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    {
        Mounted mounted(volume);
        ASSERT_EQ(mounted.files->WriteFile(u"\\f", Pattern(9000, 1)), STATUS_SUCCESS);
        const host::FileOpen request{u"\\f", FILE_READ_DATA | FILE_WRITE_DATA, 7, FILE_OPEN, 0, 0};
        auto first = OpenOrNull(*mounted.fileSystem, request);
        auto second = OpenOrNull(*mounted.fileSystem, request);
        ASSERT_EQ(mounted.files->Rename(u"\\f", u"\\g"), STATUS_SUCCESS)
            << "an open file can move when all agree";
        ASSERT_EQ(mounted.files->Delete(u"\\g"), STATUS_SUCCESS);
        Bytes read(512);
        EXPECT_EQ(mounted.files->ReadFile(u"\\g", read), STATUS_DELETE_PENDING);
        first.reset();
        ULONG done = 0;
        read.resize(512);
        EXPECT_EQ(second->Read(512, read.data(), 512, done), STATUS_SUCCESS);
        EXPECT_EQ(second->Write(9000, read.data(), 512, done), STATUS_SUCCESS);
        second.reset();
        bool exists = true;
        EXPECT_EQ(mounted.files->Exists(u"\\g", exists), STATUS_SUCCESS);
        EXPECT_FALSE(exists);
    }
    EXPECT_TRUE(Sound(volume));
}

// ---- volumes that are not as they should be
// -------------------------------------------------------------------

TEST(Mounting, ForeignDamagedAndUncleanVolumes) {
    TestVolume empty(Bytes(kMiB, 0));
    EXPECT_EQ(Mounted(empty).status, STATUS_UNRECOGNIZED_VOLUME);
    TestVolume truncated(
        Bytes(FreshNtfs(32 * kMiB, 512, 4096).begin(), FreshNtfs(32 * kMiB, 512, 4096).begin() + kMiB));
    EXPECT_FALSE(NT_SUCCESS(Mounted(truncated).status));
    TestVolume dead(FreshNtfs(32 * kMiB, 512, 4096));
    dead.verdict = [](bool) { return STATUS_DEVICE_POWERED_OFF; };
    EXPECT_EQ(Mounted(dead).status, STATUS_DEVICE_POWERED_OFF);

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

// A machine can stop after the table's first records were written and before their copy was, or within either.
TEST(Mounting, ACopyOfTheFirstRecordsThatIsBehindIsBroughtUpToDate) {
    TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
    const Bytes fresh = volume.bytes;
    {
        Mounted mounted(volume);
        for (int i = 0; i < 60; ++i) {
            const std::string number = std::to_string(i);
            ASSERT_EQ(
                mounted.files->WriteFile(u"\\" + std::u16string(number.begin(), number.end()), Pattern(600, 1)),
                STATUS_SUCCESS);
        }
    }
    const std::vector<Request> copies = volume.Writes(u"\\$MftMirr");
    ASSERT_FALSE(copies.empty()) << "the table of records grew";
    const auto undo = [&](std::uint64_t offset, std::size_t length) {
        const auto at = static_cast<std::ptrdiff_t>(offset);
        std::copy_n(fresh.begin() + at, length, volume.bytes.begin() + at);
    };
    undo(copies.back().offset, copies.back().length);
    {
        Mounted mounted(volume);
        EXPECT_EQ(mounted.status, STATUS_SUCCESS);
    }
    EXPECT_TRUE(Sound(volume));
    std::uint64_t table = 0;
    std::memcpy(&table, volume.bytes.data() + 0x30, sizeof table);
    volume.bytes[table * 4096 + 510] ^= 0xFF;  // the first record is torn, its copy is whole
    EXPECT_EQ(Mounted(volume).status, STATUS_SUCCESS);
    EXPECT_TRUE(Sound(volume));
}

TEST(Dismounting, OpenFilesAnswerAndAreReleasedLater) {
    for (const bool orderly : {true, false}) {
        TestVolume volume(FreshNtfs(32 * kMiB, 512, 4096));
        Mounted mounted(volume);
        auto file = OpenOrNull(*mounted.fileSystem, StorageOpen(u"\\kvr.SWP"));
        ULONG done = 0;
        const Bytes block = Pattern(kMiB, 1);
        ASSERT_EQ(file->Write(0, block.data(), kMiB, done), STATUS_SUCCESS);
        volume.requests.clear();
        if (orderly) {
            EXPECT_EQ(mounted.fileSystem->Dismount(), STATUS_SUCCESS);
            EXPECT_FALSE(volume.requests.empty()) << "the directory's sizes were still due";
        } else {
            mounted.fileSystem->Abandon();
            EXPECT_TRUE(volume.requests.empty());
        }
        volume.requests.clear();
        EXPECT_EQ(file->Write(0, block.data(), kMiB, done), STATUS_DEVICE_NOT_READY);
        EXPECT_EQ(file->Write(kMiB, block.data(), kMiB, done), STATUS_DEVICE_NOT_READY);
        bool exists = false;
        EXPECT_EQ(mounted.files->Exists(u"\\kvr.SWP", exists), STATUS_DEVICE_NOT_READY);
        mounted.fileSystem.reset();
        file.reset();
        EXPECT_TRUE(volume.requests.empty());
        EXPECT_TRUE(Sound(volume));
    }
}

// ---- failing requests
// ------------------------------------------------------------------------------------------

// Work that takes, changes and gives back space. Stops at the first failure and returns it.
NTSTATUS Work(NtfsFileSystem& fs) {
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

// A filter that has no room refuses single writes; the file system must pass its answer on and stay usable.
TEST(Failures, ARefusedWriteComesBackAsItIsAndHarmsNothing) {
    const Bytes image = VolumeWithFiles();
    for (unsigned n = 0;; ++n) {
        unsigned count = 0;
        TestVolume volume(image);
        Mounted mounted(volume);
        volume.verdict = [&](bool write) {
            return write && count++ == n ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS;
        };
        const NTSTATUS status = Work(*mounted.fileSystem);
        if (count <= n) break;
        // What a last close writes is a convenience; its failure is nobody's.
        EXPECT_TRUE(status == STATUS_MEDIA_WRITE_PROTECTED || status == STATUS_SUCCESS) << std::hex << status;
        ExpectKept(*mounted.files, n);
        EXPECT_EQ(mounted.files->WriteFile(u"\\after", Pattern(20000, 5)), STATUS_SUCCESS) << "request " << n;
        mounted.fileSystem.reset();
        ExpectKept(*Mounted(volume).files, n);
        ASSERT_LT(n, 1000u);
    }
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
