#include "tests/doubles/memory_disk.h"
#include <algorithm>
#include <cstring>

namespace machine {

MemoryDisk::MemoryDisk(std::uint64_t size, std::uint32_t sectorSize)
    : size_(size), sectorSize_(sectorSize), chunks_((size + kChunk - 1) / kChunk) {}

MemoryDisk::~MemoryDisk() {
    for (Chunk* chunk : chunks_) Release(chunk);
}

void MemoryDisk::Release(Chunk* chunk) {
    if (chunk != nullptr && chunk->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete chunk;
}

MemoryDisk::Chunk* MemoryDisk::MakeWritable(std::size_t index) {
    Chunk*& slot = chunks_[index];
    // Acquire: a holder that let go of the chunk has finished reading it.
    if (slot != nullptr && slot->references.load(std::memory_order_acquire) == 1) return slot;
    Chunk* own = new Chunk;
    if (slot != nullptr) {
        std::memcpy(own->data, slot->data, kChunk);
    } else {
        std::memset(own->data, 0, kChunk);
    }
    Release(slot);
    slot = own;
    return own;
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
        if (const Chunk* chunk = chunks_[index]) {
            std::memcpy(to, chunk->data + within, part);
        } else {
            std::memset(to, 0, part);
        }
    });
}

NTSTATUS MemoryDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    return ForEachChunk(offset, length, [&](auto index, auto within, auto done, auto part) {
        std::memcpy(MakeWritable(index)->data + within, static_cast<const std::uint8_t*>(buffer) + done, part);
    });
}

std::unique_ptr<MemoryDisk> MemoryDisk::Clone() const {
    auto copy = std::make_unique<MemoryDisk>(size_, sectorSize_);
    for (std::size_t i = 0; i < chunks_.size(); ++i) {
        std::lock_guard hold(StripeOf(i));
        if (Chunk* chunk = chunks_[i]) {
            chunk->references.fetch_add(1, std::memory_order_relaxed);
            copy->chunks_[i] = chunk;
        }
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
    static const std::uint8_t zeros[kChunk] = {};
    const std::uint8_t* a = chunks_[index] ? chunks_[index]->data : zeros;
    const std::uint8_t* b = other.chunks_[index] ? other.chunks_[index]->data : zeros;
    for (std::size_t at = 0; at < kChunk; at += sectorSize_) {
        if (std::memcmp(a + at, b + at, sectorSize_) == 0) continue;
        const std::uint64_t begin = std::uint64_t{index} * kChunk + at;
        if (found.empty() || found.back().end != begin) found.push_back({begin, begin});
        found.back().end = begin + sectorSize_;
    }
}

}  // namespace machine
