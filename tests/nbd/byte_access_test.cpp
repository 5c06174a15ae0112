// Requests of any alignment at once. What they leave behind one by one is shown by the proofs' clients.
#include <gtest/gtest.h>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>
#include "nbd/byte_access.h"

namespace {

constexpr std::uint32_t kSector = 512;

// One sector in memory that lets other threads run between a read and a write.
class MemoryTarget : public nbd::SectorTarget {
public:
    NTSTATUS Read(std::uint64_t, void* buffer, std::uint64_t) override {
        {
            const std::lock_guard hold(lock_);
            std::memcpy(buffer, bytes.data(), kSector);
        }
        std::this_thread::yield();
        return STATUS_SUCCESS;
    }
    NTSTATUS Write(std::uint64_t, const void* buffer, std::uint64_t length) override {
        EXPECT_EQ(kSector, length);
        const std::lock_guard hold(lock_);
        std::memcpy(bytes.data(), buffer, kSector);
        return STATUS_SUCCESS;
    }
    std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(kSector);

private:
    std::mutex lock_;
};

// A whole sector that is written between the two halves of a change would be lost with it.
TEST(ByteAccess, AChangeOfAPartDoesNotTakeBackAWholeSector) {
    MemoryTarget target;
    nbd::ByteAccess access(kSector);
    for (unsigned round = 1; round <= 500; ++round) {
        const std::vector<std::uint8_t> whole(kSector, static_cast<std::uint8_t>(round));
        std::thread other([&] { EXPECT_EQ(access.Write(target, 0, whole.data(), kSector), STATUS_SUCCESS); });
        EXPECT_EQ(access.Write(target, 10, whole.data(), 20), STATUS_SUCCESS);
        other.join();
        ASSERT_EQ(target.bytes, whole) << "round " << round;
    }
}

}  // namespace
