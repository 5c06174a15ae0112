// Where a file's bytes lie and how far they are defined, as the volume's metadata last said it.
#pragma once
#include <cstdint>
#include "machine/files/file_runs.h"

namespace machine {

// One write to a file.
struct FileWrite {
    PFILE_OBJECT file;  // what the data's requests carry
    std::uint64_t offset;
    const void* buffer;
    ULONG length;
    std::uint64_t End() const { return offset + length; }
};

struct FileShape {
    std::uint64_t size = 0, initialized = 0;  // bytes; what lies between the two reads as zeros
    bool resident = false;                    // lies in the file's own record
    bool special = false;                     // needs the library for its data: holes, compression and the like
    FileRuns runs;                            // empty if resident or special

    // Whether a range lies in runs that hold data already.
    bool Holds(std::uint64_t offset, std::uint64_t length) const {
        return !resident && !special && offset <= initialized && length <= initialized - offset;
    }
    // Writes the gap between the initialised part and the write as zeros, and then the data; the runs cover
    // both. `initialized` follows when all is written.
    [[nodiscard]] NTSTATUS Fill(VolumeIo& io, const FileWrite& write);
};

}  // namespace machine
