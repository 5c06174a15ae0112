#include "machine/files/file_runs.h"
#include <algorithm>
#include <cstring>

namespace machine {
namespace {

constexpr std::uint64_t kLargestRequest = 1u << 30;  // lengths of requests are 32 bits
constexpr std::uint64_t kZeroPiece = 1u << 20;

std::uint64_t RoundDown(std::uint64_t value, std::uint64_t unit) {
    return value / unit * unit;
}

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) {
    return RoundDown(value + unit - 1, unit);
}

}  // namespace

void FileRuns::Append(std::uint64_t volume, std::uint64_t length) {
    if (!runs_.empty() && runs_.back().volume + runs_.back().length == volume)
        runs_.back().length += length;
    else
        runs_.push_back({Allocated(), volume, length});
}

// Calls transfer(volume offset, position within the range, length) for each part that lies in one run.
template <class Transfer>
NTSTATUS FileRuns::ForEachRun(std::uint64_t offset, std::uint64_t length, const Transfer& transfer) const {
    if (offset > Allocated() || length > Allocated() - offset) return STATUS_FILE_CORRUPT_ERROR;
    auto run = std::upper_bound(runs_.begin(), runs_.end(), offset,
                                [](std::uint64_t at, const FileRun& r) { return at < r.at; });
    if (run != runs_.begin()) --run;
    for (std::uint64_t done = 0; done < length;) {
        const std::uint64_t within = offset + done - run->at;
        const std::uint64_t part = std::min({length - done, run->length - within, kLargestRequest});
        const NTSTATUS status = transfer(run->volume + within, done, static_cast<std::uint32_t>(part));
        if (!NT_SUCCESS(status)) return status;
        done += part;
        if (within + part == run->length) ++run;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FileRuns::ReadSectors(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset, std::uint8_t* buffer,
                               std::uint64_t length) const {
    return ForEachRun(offset, length, [&](std::uint64_t volume, std::uint64_t done, std::uint32_t part) {
        return io.Read(volume, buffer + done, part, file);
    });
}

NTSTATUS FileRuns::WriteSectors(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset,
                                const std::uint8_t* buffer, std::uint64_t length) const {
    return ForEachRun(offset, length, [&](std::uint64_t volume, std::uint64_t done, std::uint32_t part) {
        return io.Write(volume, buffer + done, part, file);
    });
}

NTSTATUS FileRuns::Read(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset, void* buffer,
                        std::uint64_t length) const {
    const std::uint32_t sector = io.SectorSize();
    auto* out = static_cast<std::uint8_t*>(buffer);
    if (offset % sector == 0 && length % sector == 0) return ReadSectors(io, file, offset, out, length);
    const std::uint64_t first = RoundDown(offset, sector);
    std::vector<std::uint8_t> whole(RoundUp(offset + length, sector) - first);
    const NTSTATUS status = ReadSectors(io, file, first, whole.data(), whole.size());
    if (NT_SUCCESS(status)) std::memcpy(out, whole.data() + (offset - first), length);
    return status;
}

NTSTATUS FileRuns::ReadDefined(VolumeIo& io, PFILE_OBJECT file, std::uint64_t sectorAt, std::uint8_t* sector,
                               std::uint64_t valid) const {
    if (sectorAt >= valid) return STATUS_SUCCESS;  // the caller's zeros stand
    return ReadSectors(io, file, sectorAt, sector, io.SectorSize());
}

NTSTATUS FileRuns::Write(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset, const void* buffer,
                         std::uint64_t length, std::uint64_t valid) const {
    const std::uint32_t sector = io.SectorSize();
    const auto* from = static_cast<const std::uint8_t*>(buffer);
    if (offset % sector == 0 && length % sector == 0) return WriteSectors(io, file, offset, from, length);
    const std::uint64_t first = RoundDown(offset, sector), end = offset + length;
    const std::uint64_t last =
        RoundDown(end, sector);  // the sector that the range ends in, when it ends in one
    std::vector<std::uint8_t> whole(RoundUp(end, sector) - first, 0);
    NTSTATUS status = STATUS_SUCCESS;
    if (first != offset || last == first) status = ReadDefined(io, file, first, whole.data(), valid);
    if (NT_SUCCESS(status) && last != end && last != first)
        status = ReadDefined(io, file, last, whole.data() + (last - first), valid);
    if (!NT_SUCCESS(status)) return status;
    std::memcpy(whole.data() + (offset - first), from, length);
    return WriteSectors(io, file, first, whole.data(), whole.size());
}

NTSTATUS FileRuns::WriteZeros(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset, std::uint64_t end,
                              std::uint64_t valid) const {
    if (offset >= end) return STATUS_SUCCESS;
    const std::vector<std::uint8_t> zeros(std::min(end - offset, kZeroPiece), 0);
    while (offset < end) {
        // Pieces end at whole units so that only the first and the last can cover a sector in part.
        const std::uint64_t stop = std::min(end, RoundDown(offset, kZeroPiece) + kZeroPiece);
        const NTSTATUS status = Write(io, file, offset, zeros.data(), stop - offset, valid);
        if (!NT_SUCCESS(status)) return status;
        offset = stop;
        valid = std::max(valid, offset);
    }
    return STATUS_SUCCESS;
}

}  // namespace machine
