#include "tests/doubles/recording_disk.h"
#include "platform/owners.h"

namespace machine {
namespace {

std::uint64_t Mix(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

}  // namespace

RecordingDisk::RecordingDisk(const MemoryDisk& start) : start_(start.Clone()), now_(start.Clone()) {}

NTSTATUS RecordingDisk::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    return now_->Read(offset, buffer, length);
}

NTSTATUS RecordingDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    const auto* from = static_cast<const std::uint8_t*>(buffer);
    std::lock_guard hold(lock_);
    writes_.push_back({offset, {from, from + length}});
    return now_->Write(offset, buffer, length);
}

NTSTATUS RecordingDisk::Flush() {
    std::lock_guard hold(lock_);
    flushes_.push_back(writes_.size());
    return now_->Flush();
}

std::size_t RecordingDisk::Writes() const {
    std::lock_guard hold(lock_);
    return writes_.size();
}

std::size_t RecordingDisk::Flushes() const {
    std::lock_guard hold(lock_);
    return flushes_.size();
}

std::unique_ptr<MemoryDisk> RecordingDisk::After(std::size_t writes) const {
    return AfterCut(writes, [](std::size_t, std::uint32_t) { return true; });
}

std::unique_ptr<MemoryDisk> RecordingDisk::AfterCut(std::size_t writes, const Survives& survives) const {
    auto medium = start_->Clone();
    std::lock_guard hold(lock_);
    std::size_t flushed = 0;
    for (std::size_t before : flushes_) {
        if (before <= writes) flushed = before;
    }
    const std::uint32_t sector = SectorSize();
    for (std::size_t i = 0; i < writes && i < writes_.size(); ++i) {
        const RecordedWrite& write = writes_[i];
        if (i < flushed) {
            KVR_DISCARD(medium->Write(write.offset, write.data.data(), write.data.size()),
                        "memory cannot fail");
            continue;
        }
        for (std::uint32_t s = 0; s * sector < write.data.size(); ++s) {
            if (!survives(i, s)) continue;
            KVR_DISCARD(medium->Write(write.offset + s * sector, &write.data[s * sector], sector),
                        "memory cannot fail");
        }
    }
    return medium;
}

RecordingDisk::Survives RecordingDisk::LoseAll() {
    return [](std::size_t, std::uint32_t) { return false; };
}

RecordingDisk::Survives RecordingDisk::LoseSome(std::uint64_t seed) {
    return [seed](std::size_t write, std::uint32_t sector) {
        return (Mix(seed ^ Mix(write * 0x10001ull + sector)) & 1) != 0;
    };
}

}  // namespace machine
