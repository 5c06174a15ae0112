// Requests of any alignment: where a disk's map cuts them, and what they leave behind.
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>
#include "nbd/byte_access.h"
#include "nbd/disk_map.h"

namespace {

constexpr std::uint32_t kSector = 512;

TEST(DiskMap, CutsAtEveryBoundaryAndNamesTheRightVolume) {
    const nbd::DiskMap map({{2, 8192, 4096}, {1, 1024, 2048}, {3, 12288, 512}});
    const auto owner = [](std::uint64_t at) -> unsigned {
        if (at >= 1024 && at < 3072) return 1;
        if (at >= 8192 && at < 12288) return 2;
        return at >= 12288 && at < 12800 ? 3 : 0;
    };
    for (std::uint64_t start = 0; start < 14000; start += 100) {
        for (std::uint64_t at = start; at < 14000;) {
            const nbd::Piece piece = map.First(at, 14000 - at, 3000);
            ASSERT_EQ(piece.offset, at);
            ASSERT_TRUE(piece.length > 0 && piece.length <= 3000);
            const unsigned number = piece.volume == nullptr ? 0 : piece.volume->number;
            for (std::uint64_t byte = at; byte < at + piece.length; ++byte) ASSERT_EQ(owner(byte), number);
            at += piece.length;
        }
    }
    EXPECT_EQ(map.Find(2)->offset, 8192u);
    EXPECT_EQ(map.Find(4), nullptr);
}

// A disk in memory that insists on whole sectors and lets other threads run between a read and a write.
class MemoryTarget : public nbd::SectorTarget {
public:
    explicit MemoryTarget(std::size_t bytes) : bytes_(bytes) {}

    NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint64_t length) override {
        Check(offset, length);
        {
            const std::lock_guard hold(lock_);
            std::memcpy(buffer, bytes_.data() + offset, length);
        }
        std::this_thread::yield();
        return STATUS_SUCCESS;
    }
    NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint64_t length) override {
        Check(offset, length);
        const std::lock_guard hold(lock_);
        std::memcpy(bytes_.data() + offset, buffer, length);
        return STATUS_SUCCESS;
    }
    const std::vector<std::uint8_t>& Bytes() const { return bytes_; }

private:
    void Check(std::uint64_t offset, std::uint64_t length) const {
        EXPECT_TRUE(length > 0 && offset % kSector == 0 && length % kSector == 0);
        EXPECT_LE(offset + length, bytes_.size());
    }
    std::mutex lock_;
    std::vector<std::uint8_t> bytes_;
};

TEST(ByteAccess, AnyRangeIsWrittenAndReadAsInAModel) {
    constexpr std::size_t kBytes = 40 * kSector;
    MemoryTarget target(kBytes);
    nbd::ByteAccess access(kSector);
    std::vector<std::uint8_t> model(kBytes);
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        const std::size_t offset = random() % kBytes;
        const std::size_t most = std::min<std::size_t>(kBytes - offset, round % 3 == 0 ? 200 : 4 * kSector);
        const std::size_t length = 1 + random() % most;
        std::vector<std::uint8_t> data(length, static_cast<std::uint8_t>(random()));
        if (round % 2 == 0) {
            ASSERT_EQ(access.Write(target, offset, data.data(), length), STATUS_SUCCESS);
            std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
        } else {
            ASSERT_EQ(access.Read(target, offset, data.data(), length), STATUS_SUCCESS);
            ASSERT_TRUE(
                std::equal(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset)));
        }
    }
    EXPECT_EQ(target.Bytes(), model);
}

// A whole sector that is written between the two halves of a change would be lost with it.
TEST(ByteAccess, AChangeOfAPartDoesNotTakeBackAWholeSector) {
    MemoryTarget target(kSector);
    nbd::ByteAccess access(kSector);
    for (unsigned round = 1; round <= 500; ++round) {
        const auto value = static_cast<std::uint8_t>(round);
        const std::vector<std::uint8_t> whole(kSector, value);
        std::thread other([&] { EXPECT_EQ(access.Write(target, 0, whole.data(), kSector), STATUS_SUCCESS); });
        EXPECT_EQ(access.Write(target, 10, whole.data(), 20), STATUS_SUCCESS);
        other.join();
        ASSERT_EQ(target.Bytes(), whole) << "round " << round;
    }
}

}  // namespace
