// The folder in which a run keeps its disk images. It goes away with the object, and also when a signal ends the
// program: nothing stays behind.
#pragma once
#include <cstdint>
#include <string>

namespace tool {

// Signals that end the program (INT, TERM, HUP) are from now on waited for by a thread that removes the scratch
// folders before it ends the program. Call it in main before any other thread exists.
void WatchSignals();

class Scratch {
public:
    // A new folder below `parent`; empty: below $TMPDIR, or /tmp. Throws Error when it cannot be made or its
    // file system has less than `needed` bytes free.
    Scratch(const std::string& parent, std::uint64_t needed);
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Copies a file, holes as holes; where the file system can share the blocks of both, it does. Throws Error.
void CopySparse(const std::string& from, const std::string& to);
// Copies `length` bytes at `offset` of `from` into the new file `to`, holes and zeros as holes. Throws Error.
void ExtractSparse(const std::string& from, std::uint64_t offset, std::uint64_t length, const std::string& to);
// The bytes that the file takes on its disk.
std::uint64_t AllocatedBytes(const std::string& path);

}  // namespace tool
