// Disk media: sparse memory with shared chunks, image files, recordings, the power switch.
#include <cstring>
#include <filesystem>
#include <random>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include "machine/fault_disk.h"
#include "machine/image_disk.h"
#include "machine/memory_disk.h"
#include "machine/recording_disk.h"

namespace {

using namespace machine;
namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

Bytes Pattern(std::size_t bytes, std::uint8_t first) {
    Bytes data(bytes);
    for (std::size_t i = 0; i < bytes; ++i) data[i] = static_cast<std::uint8_t>(first + i / 512);
    return data;
}

Bytes ReadBack(Disk& disk, std::uint64_t offset, std::size_t length) {
    Bytes data(length, 0xEE);
    EXPECT_EQ(STATUS_SUCCESS, disk.Read(offset, data.data(), length));
    return data;
}

class Folder {
public:
    Folder() {
        char name[] = "/tmp/kvr_media_XXXXXX";
        path_ = mkdtemp(name);
    }
    ~Folder() { fs::remove_all(path_); }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Every medium is one array of bytes, whatever the chunk borders.
TEST(Media, BehaveAsPlainArrays) {
    Folder folder;
    std::string error;
    ASSERT_TRUE(ImageDisk::Create(folder / "a.img", 1 << 20, error)) << error;
    auto image = ImageDisk::Open(folder / "a.img", 512, error);
    ASSERT_NE(nullptr, image) << error;
    MemoryDisk memory(1 << 20, 512);
    RecordingDisk recording(memory);
    Bytes model(1 << 20);
    std::mt19937 random(7);
    for (int i = 0; i < 300; ++i) {
        const std::size_t length = 512 * (1 + random() % 300);
        const std::size_t offset = 512 * (random() % ((model.size() - length) / 512 + 1));
        const Bytes data = Pattern(length, static_cast<std::uint8_t>(random()));
        std::memcpy(&model[offset], data.data(), length);
        for (Disk* disk : std::initializer_list<Disk*>{image.get(), &memory, &recording}) {
            ASSERT_EQ(STATUS_SUCCESS, disk->Write(offset, data.data(), length));
        }
    }
    EXPECT_EQ(model, ReadBack(*image, 0, model.size()));
    EXPECT_EQ(model, ReadBack(memory, 0, model.size()));
    EXPECT_EQ(model, ReadBack(recording, 0, model.size()));
}

TEST(Media, ClonesShareNothingThatIsWritten) {
    MemoryDisk disk(1 << 20, 512);
    const Bytes a = Pattern(512, 1), b = Pattern(512, 2);
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(0, a.data(), 512));
    auto copy = disk.Clone();
    EXPECT_TRUE(copy->SameContent(disk));
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(512, b.data(), 512));
    ASSERT_EQ(STATUS_SUCCESS, copy->Write(1024, b.data(), 512));
    EXPECT_FALSE(copy->SameContent(disk));
    EXPECT_EQ(Bytes(512), ReadBack(*copy, 512, 512));
    EXPECT_EQ(Bytes(512), ReadBack(disk, 1024, 512));
    EXPECT_EQ(a, ReadBack(*copy, 0, 512));
    EXPECT_EQ(a, ReadBack(disk, 0, 512)) << "what stood in a chunk moves with it";
    // A chunk of zeros is the same as none.
    MemoryDisk blank(1 << 20, 512), zeroed(1 << 20, 512);
    ASSERT_EQ(STATUS_SUCCESS, zeroed.Write(0, Bytes(512).data(), 512));
    EXPECT_TRUE(blank.SameContent(zeroed));
}

TEST(Media, ImagesSayWhatIsWrong) {
    Folder folder;
    std::string error;
    const auto refused = [&](const std::string& path, const char* why, std::uint32_t sector = 512) {
        error.clear();
        EXPECT_EQ(nullptr, ImageDisk::Open(path, sector, error));
        EXPECT_NE(std::string::npos, error.find(why)) << error;
    };
    refused(folder / "none.img", "No such file");
    refused(folder / "", "Is a directory");
    refused("/dev/null", "neither a file nor a block device");
    ASSERT_TRUE(ImageDisk::Create(folder / "odd.img", 5000, error));
    refused(folder / "odd.img", "no whole number of sectors");
    ASSERT_TRUE(ImageDisk::Create(folder / "empty.img", 0, error));
    refused(folder / "empty.img", "empty");
    ASSERT_TRUE(ImageDisk::Create(folder / "a.img", 512 * 9, error));
    refused(folder / "a.img", "no whole number of sectors", 4096);
    refused(folder / "a.img", "neither 512 nor 4096", 1024);
    auto held = ImageDisk::Open(folder / "a.img", 512, error);
    ASSERT_NE(nullptr, held) << error;
    refused(folder / "a.img", "another program is using it");
    held.reset();
    EXPECT_NE(nullptr, ImageDisk::Open(folder / "a.img", 512, error)) << "the lock ends with the disk";
    EXPECT_FALSE(ImageDisk::Create(folder / "a.img", 512, error)) << "an existing image is left alone";
}

TEST(Media, ImagesStaySparse) {
    Folder folder;
    std::string error;
    ASSERT_TRUE(ImageDisk::Create(folder / "a.img", 1ull << 33, error));
    auto image = ImageDisk::Open(folder / "a.img", 4096, error);
    const Bytes data(4096, 9);
    ASSERT_EQ(STATUS_SUCCESS, image->Write((1ull << 33) - 4096, data.data(), 4096));
    ASSERT_EQ(STATUS_SUCCESS, image->Flush());
    struct stat info;
    ASSERT_EQ(0, stat((folder / "a.img").c_str(), &info));
    EXPECT_LT(info.st_blocks * 512, 1 << 20);
}

TEST(Media, RecordingsGiveEveryStateOfThePast) {
    MemoryDisk start(1 << 16, 512);
    const Bytes old = Pattern(1 << 16, 100);
    ASSERT_EQ(STATUS_SUCCESS, start.Write(0, old.data(), old.size()));
    RecordingDisk disk(start);
    const Bytes a = Pattern(1024, 1), b = Pattern(1024, 11), c = Pattern(1024, 21);
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(0, a.data(), 1024));
    ASSERT_EQ(STATUS_SUCCESS, disk.Flush());
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(512, b.data(), 1024));
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(4096, c.data(), 1024));
    EXPECT_EQ(3u, disk.Writes());
    EXPECT_EQ(1u, disk.Flushes());
    EXPECT_TRUE(disk.After(0)->SameContent(start));
    EXPECT_EQ(a, ReadBack(*disk.After(1), 0, 1024));
    EXPECT_EQ(b, ReadBack(*disk.After(3), 512, 1024));
    const auto lost = disk.AfterCut(3, RecordingDisk::LoseAll());
    EXPECT_TRUE(lost->SameContent(*disk.After(1))) << "the flushed write stays, the others go";
    ASSERT_EQ(STATUS_SUCCESS, disk.Flush());
    EXPECT_EQ(c, ReadBack(*disk.AfterCut(3, RecordingDisk::LoseAll()), 4096, 1024));
    EXPECT_TRUE(disk.AfterCut(2, RecordingDisk::LoseAll())->SameContent(*disk.After(1)))
        << "a later flush is too late";
    EXPECT_TRUE(disk.AfterCut(1, RecordingDisk::LoseAll())->SameContent(*disk.After(1)));
    // Torn: of the second write only its second sector arrived.
    const auto torn = disk.AfterCut(2, [](std::size_t, std::uint32_t sector) { return sector == 1; });
    EXPECT_EQ(Bytes(a.begin() + 512, a.end()), ReadBack(*torn, 512, 512));
    EXPECT_EQ(Bytes(b.begin() + 512, b.end()), ReadBack(*torn, 1024, 512));
    EXPECT_TRUE(disk.AfterCut(3, RecordingDisk::LoseSome(5))
                    ->SameContent(*disk.AfterCut(4, RecordingDisk::LoseSome(5))));
}

}  // namespace
