// What is NTFS's own: how the driver's configuration file is seen, whose requests are whose, fragments,
// hibernated volumes, names that move.
#include <set>
#include "tests/machine/format_support.h"

namespace {

using namespace format_test;

std::u16string Numbered(const std::u16string& name, std::size_t number) {
    const std::string digits = std::to_string(number);
    return name + std::u16string(digits.begin(), digits.end());
}

TEST(Ntfs, TheConfigurationIsSeenAsSixteenSectorsWhateverTheFileWasBefore) {
    TestVolume volume(kNtfs.Fresh(16 * kMiB));
    const std::u16string path = u"\\Windows\\System32\\drivers\\kvr.cfg";
    const Bytes text = Pattern(8192, 7);
    {
        const Mounted mounted(kNtfs, volume);
        for (const char16_t* directory :
             {u"\\Windows", u"\\Windows\\System32", u"\\Windows\\System32\\drivers"})
            ASSERT_EQ(mounted.files->MakeDirectory(directory), STATUS_SUCCESS);
        for (const std::size_t before : {0u, 100u, 20000u}) {
            // Missing at first, then resident, then larger than the text.
            NTSTATUS made = STATUS_SUCCESS;
            if (before > 0) made = mounted.files->WriteFile(path, Pattern(before, 1));
            ASSERT_EQ(made, STATUS_SUCCESS);
            const host::FileOpen request{
                u"\\WINDOWS\\system32\\drivers\\kvr.cfg", 0x100003, 0, FILE_OPEN_IF, 0x2A, 0x80};
            auto file = mounted.Open(request);
            volume.requests.clear();
            ULONG done = 0;
            ASSERT_EQ(file->Write(0, text.data(), 8192, done), STATUS_SUCCESS);
            EXPECT_EQ(Covered(volume.Writes(request.path)), 8192u) << "with " << before << " bytes before";
        }
    }
    EXPECT_TRUE(kNtfs.Sound(volume.bytes));
}

TEST(Ntfs, MetadataRequestsCarryTheFileSystemsOwnNames) {
    TestVolume volume(kNtfs.Fresh(16 * kMiB));
    {
        const Mounted mounted(kNtfs, volume);
        ASSERT_EQ(mounted.files->MakeDirectory(u"\\many"), STATUS_SUCCESS);
        for (unsigned i = 0; i < 120; ++i)  // enough for the table of records to grow, too
            ASSERT_EQ(
                mounted.files->WriteFile(Numbered(u"\\many\\a file with a longer name ", i), Pattern(5000, 1)),
                STATUS_SUCCESS);
        std::set<std::u16string> names;
        for (const Request& request : volume.Writes()) {
            EXPECT_NE(request.file, nullptr);
            if (!request.name.starts_with(u"\\many\\")) names.insert(request.name);
            const bool index = std::memcmp(request.data.data(), "INDX", 4) == 0;
            EXPECT_TRUE(!index || request.name == u"\\$Directory");
        }
        EXPECT_EQ(names, (std::set<std::u16string>{u"\\$Mft", u"\\$MftMirr", u"\\$BitMap", u"\\$Directory"}));
    }
    EXPECT_TRUE(kNtfs.Sound(volume.bytes));
}

TEST(Ntfs, FragmentedSpaceIsUsedInPieces) {
    TestVolume volume(kNtfs.Fresh(16 * kMiB));
    Bytes content;
    {
        const Mounted mounted(kNtfs, volume);
        std::vector<std::pair<std::uint64_t, std::u16string>> places;  // of the files' data
        for (std::u16string name = u"\\f0"; NT_SUCCESS(mounted.files->WriteFile(name, Pattern(16384, 1)));
             name = Numbered(u"\\f", places.size()))
            places.push_back({volume.Writes(name).at(0).offset, name});
        ASSERT_GT(places.size(), 300u);
        std::sort(places.begin(), places.end());
        for (std::size_t i = 0; i < places.size(); i += 2)
            ASSERT_EQ(mounted.files->Delete(places[i].second), STATUS_SUCCESS);
        auto file = mounted.Open(StorageOpen(u"\\kvr.SWP"));
        for (unsigned i = 0; i < 3; ++i) {
            volume.requests.clear();
            const Bytes block = Pattern(kMiB, i);
            ULONG done = 0;
            ASSERT_EQ(file->Write(LONGLONG(i * kMiB), block.data(), kMiB, done), STATUS_SUCCESS) << i;
            EXPECT_GT(volume.Writes(u"\\kvr.SWP").size(), 32u) << "holes of 16 KiB";
            EXPECT_EQ(Covered(volume.Writes(u"\\kvr.SWP")), kMiB);
            content.insert(content.end(), block.begin(), block.end());
        }
        file.reset();
        Bytes read;
        EXPECT_EQ(mounted.files->ReadFile(u"\\kvr.SWP", read), STATUS_SUCCESS);
        EXPECT_TRUE(read == content);
    }
    EXPECT_TRUE(kNtfs.Sound(volume.bytes));
}

TEST(Ntfs, AHibernatedVolumeIsOnlyRead) {
    TestVolume volume(kNtfs.Fresh(16 * kMiB));
    Bytes header(8192, 0);
    std::memcpy(header.data(), "hibr", 4);
    ASSERT_EQ(Mounted(kNtfs, volume).files->WriteFile(u"\\hiberfil.sys", header), STATUS_SUCCESS);
    const Mounted mounted(kNtfs, volume);
    EXPECT_NE(mounted.fileSystem->ReadOnlyReason().find("hibernated"), std::string::npos);
    EXPECT_EQ(mounted.files->WriteFile(u"\\new", header), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(mounted.files->WriteFile(u"\\hiberfil.sys", header), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(mounted.files->Delete(u"\\hiberfil.sys"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(mounted.files->ReadFile(u"\\hiberfil.sys", header), STATUS_SUCCESS);
}

TEST(Ntfs, NamesMoveButNotBelowThemselvesOrOverOthers) {
    TestVolume volume(kNtfs.Fresh(16 * kMiB));
    {
        const Mounted mounted(kNtfs, volume);
        machine::GuestFiles& files = *mounted.files;
        for (const char16_t* directory : {u"\\a", u"\\a\\b", u"\\c"})
            ASSERT_EQ(files.MakeDirectory(directory), STATUS_SUCCESS);
        ASSERT_EQ(files.WriteFile(u"\\a\\file", Pattern(100, 1)), STATUS_SUCCESS);
        EXPECT_EQ(files.Rename(u"\\a", u"\\a\\b\\a"), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(files.Rename(u"\\a", u"\\c"), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(files.Rename(u"\\", u"\\root"), STATUS_ACCESS_DENIED);
        EXPECT_EQ(files.Rename(u"\\none", u"\\some"), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(files.Rename(u"\\a", u"\\c\\d"), STATUS_SUCCESS);
        Bytes read;
        EXPECT_EQ(files.ReadFile(u"\\c\\d\\file", read), STATUS_SUCCESS);
        EXPECT_TRUE(read == Pattern(100, 1));
        EXPECT_EQ(files.ReadFile(u"\\$Mft", read), STATUS_ACCESS_DENIED);
    }
    EXPECT_TRUE(kNtfs.Sound(volume.bytes));
}

}  // namespace
