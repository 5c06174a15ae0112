#include "tests/doubles/memory_disk.h"
#include <algorithm>
#include <cstring>

namespace machine {

MemoryDisk::MemoryDisk(std::uint64_t size, std::uint32_t sectorSize)
    : size_(size), sectorSize_(sectorSize), chunks_((size + kChunk - 1) / kChunk) {}

MemoryDisk::Chunk& MemoryDisk::MakeWritable(std::size_t index) {
    std::shared_ptr<Chunk>& slot = chunks_[index];
    if (slot.use_count() != 1) slot = slot ? std::make_shared<Chunk>(*slot) : std::make_shared<Chunk>();
    std::shared_ptr<Chunk>(slot).reset();  // a holder that let go of the chunk has finished reading it
    return *slot;
}

template <class Move>
NTSTATUS MemoryDisk::ForEachChunk(std::uint64_t offset, std::size_t length, const Move& move) {
    for (std::size_t done = 0, part = 0; done != length; done += part) {
        const std::size_t index = (offset + done) / kChunk;
        const std::size_t within = (offset + done) % kChunk;
        part = std::min(length - done, kChunk - within);
        std::lock_guard hold(StripeOf(index));
        move(index, within, done, part);
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryDisk::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    return ForEachChunk(offset, length, [&](auto index, auto within, auto done, auto part) {
        auto* to = static_cast<std::uint8_t*>(buffer) + done;
        if (const auto& chunk = chunks_[index])
            std::memcpy(to, chunk->data() + within, part);
        else
            std::memset(to, 0, part);
    });
}

NTSTATUS MemoryDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    return ForEachChunk(offset, length, [&](auto index, auto within, auto done, auto part) {
        std::memcpy(&MakeWritable(index)[within], static_cast<const std::uint8_t*>(buffer) + done, part);
    });
}

std::unique_ptr<MemoryDisk> MemoryDisk::Clone() const {
    auto copy = std::make_unique<MemoryDisk>(size_, sectorSize_);
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        std::lock_guard hold(StripeOf(i));
        copy->chunks_[i] = chunks_[i];
    }
    return copy;
}

std::vector<MemoryDisk::Range> MemoryDisk::DifferencesFrom(const MemoryDisk& other) const {
    std::vector<Range> found;
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        if (chunks_[i] != other.chunks_[i]) CompareChunk(other, i, found);
    }
    return found;
}

void MemoryDisk::CompareChunk(const MemoryDisk& other, std::size_t index, std::vector<Range>& found) const {
    static const Chunk zeros = {};
    const std::uint8_t* a = (chunks_[index] ? *chunks_[index] : zeros).data();
    const std::uint8_t* b = (other.chunks_[index] ? *other.chunks_[index] : zeros).data();
    for (std::size_t at = 0; at < kChunk; at += sectorSize_) {
        if (std::memcmp(a + at, b + at, sectorSize_) == 0) continue;
        const std::uint64_t begin = std::uint64_t{index} * kChunk + at;
        if (found.empty() || found.back().end != begin) found.push_back({begin, begin});
        found.back().end = begin + sectorSize_;
    }
}

}  // namespace machine
