// A disk that keeps every write and flush in its order, so that a crash test can ask what the medium would
// hold had the power failed after any of them.
#pragma once
#include <functional>
#include <memory>
#include <mutex>
#include <vector>
#include "tests/doubles/memory_disk.h"

namespace machine {

class RecordingDisk final : public Disk {
public:
    // Whether one sector of a write that was not flushed reached the medium. `write` counts from 0 over the
    // recording, `sector` from 0 within the write.
    using Survives = std::function<bool(std::size_t write, std::uint32_t sector)>;

    // Records on top of a copy of `start`.
    explicit RecordingDisk(const MemoryDisk& start);

    std::uint64_t Size() const override { return now_->Size(); }
    std::uint32_t SectorSize() const override { return now_->SectorSize(); }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override;

    std::size_t Writes() const;   // recorded so far
    std::size_t Flushes() const;  // recorded so far
    // The medium after the first `writes` writes.
    std::unique_ptr<MemoryDisk> After(std::size_t writes) const;
    // The same, but of the writes since the last flush only what `survives` says.
    std::unique_ptr<MemoryDisk> AfterCut(std::size_t writes, const Survives& survives) const;

    static Survives LoseAll();
    // Each unflushed sector survives or not, as a function of the seed alone.
    static Survives LoseSome(std::uint64_t seed);

private:
    struct RecordedWrite {
        std::uint64_t offset;
        std::vector<std::uint8_t> data;
    };

    std::unique_ptr<MemoryDisk> start_;
    std::unique_ptr<MemoryDisk> now_;
    mutable std::mutex lock_;  // orders the record as the medium saw it
    std::vector<RecordedWrite> writes_;
    // For each flush, the number of writes before it.
    std::vector<std::size_t> flushes_;
};

}  // namespace machine
