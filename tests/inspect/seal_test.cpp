// A single changed byte is found wherever it is, and whose it is.
#include "image_view.h"
#include "inspect/owners.h"
#include "inspect/seal_file.h"

namespace {

using namespace inspect_test;

const inspect::Progress kSilent = [](const char*, std::uint64_t, std::uint64_t) {};
constexpr std::uint64_t kBegin = 1000 * 512;  // of the volume on its disk

class Seals : public testing::TestWithParam<Format> {
protected:
    Seals() {
        TestVolume volume(GetParam().Fresh(48 * kMiB));
        {
            const Mounted mounted(GetParam(), volume);
            EXPECT_EQ(STATUS_SUCCESS, mounted.files->MakeDirectory(u"\\docs"));
            EXPECT_EQ(STATUS_SUCCESS, mounted.files->WriteFile(u"\\docs\\report", Pattern(3 * kMiB, 1)));
            EXPECT_EQ(STATUS_SUCCESS, mounted.files->WriteFile(u"\\kvr.SWP", Pattern(kMiB, 2)));
        }
        bytes = volume.bytes;
        image = folder.Sparse("disk", kBegin + bytes.size() + 512);
        for (std::size_t at = 0; at < bytes.size(); at += kMiB)
            if (std::any_of(&bytes[at], &bytes[at] + kMiB, [](auto b) { return b != 0; }))
                TestFolder::Put(image, kBegin + at, {&bytes[at], &bytes[at] + kMiB});
        part.volume = 1, part.offset = kBegin, part.length = bytes.size();
        part.fileSystem = GetParam().IsNtfs() ? FileSystemKind::Ntfs : FileSystemKind::Ext;
        table = inspect::FileTable::Open(view);
        part.leftOut = inspect::OwnExtents(*table, view.Size());
        EXPECT_TRUE(inspect::TakeSeal(image, part, std::atomic<bool>{false}, kSilent));
        report = Record("/docs/report"), swap = Record("/kvr.SWP");
    }
    inspect::FileRecord Record(const std::string& path) {
        inspect::FileRecord record;
        const auto id = table->Find(path);
        EXPECT_TRUE(id && table->Read(*id, record)) << path;
        return record;
    }
    void Flip(std::uint64_t at) {
        bytes[at] ^= 0x10;
        TestFolder::Put(image, kBegin + at, {static_cast<char>(bytes[at])});
    }
    std::vector<inspect::Extent> Compare() { return inspect::CompareSeal(image, part, {}, kSilent); }

    const TestFolder folder;
    Bytes bytes;
    std::string image;
    inspect::PartSeal part;
    ImageView view{bytes};
    std::unique_ptr<inspect::FileTable> table;
    inspect::FileRecord report, swap;
};

TEST_P(Seals, FindEveryByteAndItsOwner) {
    EXPECT_EQ(Compare(), std::vector<inspect::Extent>{});
    std::uint64_t free = bytes.size() / 2 + kMiB + 77;
    while (table->IsInUse(free)) free += 4096;
    struct Place {
        std::uint64_t at;
        const char* owner;
    };
    std::vector<Place> places = {{report.data[0].offset + 1234567, "/docs/report"}, {free, "free space"}};
    if (GetParam().IsNtfs()) {
        const std::uint64_t mft = Record("/$MFT").data[0].offset;
        const std::uint64_t name = mft + report.id * 1024 + 0xF2;  // in the record's name
        places.insert(
            places.end(),
            {{3, "the boot sector"}, {0x100, "/$Boot"}, {name, "/$MFT"}, {name, "the record of /docs/rep"}});
    } else {
        places.insert(places.end(),
                      {{1024 + 56, "the superblock"}, {1024 + 120, "the superblock"}, {100, "the superblock"}});
        for (const auto& [extent, what] : table->Tables())
            if (what == "an inode table") {
                places.push_back({extent.offset + 300, "an inode table"});
                break;
            }
    }
    for (const Place& place : places) {
        Flip(place.at);
        const std::vector<inspect::Extent> changed = Compare();
        EXPECT_EQ(changed, (std::vector<inspect::Extent>{{place.at / 4096 * 4096, 4096}})) << place.owner;
        inspect::ImageWindow window(image, kBegin, part.length);
        std::string owners;
        for (const inspect::Owned& owned : inspect::OwnersOf(window, changed, part.fileSystem))
            for (const std::string& owner : owned.owners) owners += owner + "\n";
        EXPECT_NE(std::string::npos, owners.find(place.owner)) << place.at << ": " << owners;
        Flip(place.at);
    }
    Flip(swap.data[0].offset + 5000);
    EXPECT_EQ(Compare(), std::vector<inspect::Extent>{}) << "the driver's own files are left out";
    // What the driver has taken since is left out as well, block by block.
    Flip(free);
    EXPECT_EQ(inspect::CompareSeal(image, part, {{free / 4096 * 4096, 4096}}, kSilent),
              std::vector<inspect::Extent>{});
    TestFolder::Put(image, kBegin - 1, {'x'});
    TestFolder::Put(image, kBegin + bytes.size(), {'x'});
    EXPECT_EQ(Compare().size(), 1u) << "what lies around it is not the volume's";
}

TEST_P(Seals, AreReadBackOrRefused) {
    const std::string file = folder.File("seal");
    inspect::SaveSeals(file, {part, {}});
    const std::vector<inspect::PartSeal> read = inspect::LoadSeals(file);
    ASSERT_EQ(2u, read.size());
    EXPECT_EQ(read[0].leftOut, part.leftOut);
    EXPECT_EQ(read[0].groups.size(), part.groups.size());
    part = read[0];
    EXPECT_EQ(Compare(), std::vector<inspect::Extent>{});
    const std::vector<char> whole = TestFolder::Bytes(file);
    for (const std::size_t at : {std::size_t{3}, std::size_t{8}, sizeof(inspect::SealFileHeader) + 40,
                                 whole.size() / 2, whole.size() - 1}) {
        TestFolder::Put(file, at, {static_cast<char>(whole[at] ^ 0x40)});
        EXPECT_NE(std::string::npos, Complaint([&] { inspect::LoadSeals(file); }).find("is damaged")) << at;
        TestFolder::Put(file, at, {whole[at]});
    }
    std::filesystem::resize_file(file, whole.size() - 1);
    EXPECT_NE(std::string::npos, Complaint([&] { inspect::LoadSeals(file); }).find("is damaged"));
}

INSTANTIATE_TEST_SUITE_P(Formats, Seals, testing::Values(kNtfs, kExt4));

}  // namespace
