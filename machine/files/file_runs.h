// File data on the volume: where a file's bytes lie, and the requests that move them. One request is made per
// contiguous run, with the file object of the file, so that filters see file data as such.
#pragma once
#include <cstdint>
#include <vector>
#include "machine/files/volume_io.h"

namespace machine {

// A contiguous part of a file; all in bytes, whole sectors.
struct FileRun {
    std::uint64_t at;      // position in the file
    std::uint64_t volume;  // position on the volume
    std::uint64_t length;
};

// The runs that cover a file's allocation, ascending and without gaps, neighbours joined.
class FileRuns {
public:
    void Clear() { runs_.clear(); }
    // Continues the file at its present end.
    void Append(std::uint64_t volume, std::uint64_t length);
    const std::vector<FileRun>& All() const { return runs_; }
    std::uint64_t Allocated() const { return runs_.empty() ? 0 : runs_.back().at + runs_.back().length; }

    // Transfers any byte range within the allocation. On a failure the failing request's status; parts before
    // it are transferred. `valid` is the position up to which the file's bytes are defined: where a write
    // covers a sector in part, the rest of it is kept below `valid` and zero beyond.
    [[nodiscard]] NTSTATUS Read(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset, void* buffer,
                                std::uint64_t length) const;
    [[nodiscard]] NTSTATUS Write(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset, const void* buffer,
                                 std::uint64_t length, std::uint64_t valid) const;
    [[nodiscard]] NTSTATUS WriteZeros(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset, std::uint64_t end,
                                      std::uint64_t valid) const;

    // Tells the disk that nobody needs the file's sectors any more.
    void Trim(VolumeIo& io) const {
        for (const FileRun& run : runs_) io.Trim(run.volume, run.length);
    }

private:
    template <class Transfer>
    [[nodiscard]] NTSTATUS ForEachRun(std::uint64_t offset, std::uint64_t length,
                                      const Transfer& transfer) const;
    [[nodiscard]] NTSTATUS ReadSectors(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset,
                                       std::uint8_t* buffer, std::uint64_t length) const;
    [[nodiscard]] NTSTATUS WriteSectors(VolumeIo& io, PFILE_OBJECT file, std::uint64_t offset,
                                        const std::uint8_t* buffer, std::uint64_t length) const;
    [[nodiscard]] NTSTATUS ReadDefined(VolumeIo& io, PFILE_OBJECT file, std::uint64_t sectorAt,
                                       std::uint8_t* sector, std::uint64_t valid) const;

    std::vector<FileRun> runs_;
};

}  // namespace machine
