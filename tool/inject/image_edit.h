// A raw disk image under edit. What is written stays in memory until Commit(), which changes the image as a
// whole or not at all, also when the host stops half-way: what the sectors held lies in a file beside the image
// until all of them are written, and whoever opens the image for an edit next puts them back first.
#pragma once
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include "posix/file_io.h"

namespace tool {

class ImageEdit {
public:
    // Opens and locks the image: no machine, and no other edit, may have it. Throws Error with the cause, also
    // for an image that is not raw, and for one that was changed by others after an edit had stopped half-way.
    explicit ImageEdit(const std::string& path);

    std::uint64_t Size() const { return size_; }
    // An edit that had stopped half-way was undone.
    bool WasUndone() const { return undone_; }

    // Byte ranges of any alignment; one that leaves the image, or that the host cannot read, throws Error.
    void Read(std::uint64_t offset, void* buffer, std::size_t length) const;
    void Write(std::uint64_t offset, const void* buffer, std::size_t length);

    // Writes what differs, and gives its bytes. Throws Error: the image is then as it was, or the file beside
    // it says how it was and the next edit puts that back.
    std::uint64_t Commit();

private:
    static constexpr std::size_t kBlock = 4096;
    using Block = std::array<std::uint8_t, kBlock>;
    using Blocks = std::map<std::uint64_t, Block>;  // by number

    void CheckRange(std::uint64_t offset, std::size_t length) const;
    Block ReadBlock(std::uint64_t number) const;
    void WriteBlocks(const Blocks& blocks);
    Blocks Changed(Blocks& before) const;
    void SaveUndo(const Blocks& before, const Blocks& after) const;
    void Undo();

    std::string path_, undoPath_;
    posix::File file_;
    std::uint64_t size_ = 0;
    bool undone_ = false;
    Blocks written_;
};

// A copy of the image, sharing its blocks where the host's file system can, else with holes as holes. Throws
// Error, also for an image that is in use or that an edit left half-way.
void CopyImage(const std::string& from, const std::string& to);

}  // namespace tool
