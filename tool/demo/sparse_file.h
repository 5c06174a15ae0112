// Sparse disk images as files: copies that leave holes as holes.
#pragma once
#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace tool {

// Copies a file, holes as holes; where the file system can share the blocks of both, it does. Throws Error.
void CopySparse(const std::string& from, const std::string& to);
// Copies `length` bytes at `offset` of `from` into the file `to`, holes and zeros as holes. Throws Error.
void ExtractSparse(const std::string& from, std::uint64_t offset, std::uint64_t length, const std::string& to);
// The bytes that the file takes on its disk.
std::uint64_t AllocatedBytes(const std::string& path);

// Calls `use` with each piece of [begin, end) of the open file that is not all zeros, and with where it lies,
// in ascending order. Pieces are cut at multiples of 64 KiB from `origin` on, so the same content gives the
// same pieces however it is stored; holes cost nothing. Throws Error when the file cannot be read.
void ForEachPiece(int file, std::uint64_t origin, std::uint64_t begin, std::uint64_t end,
                  const std::function<void(std::uint64_t at, std::span<const char> piece)>& use);

}  // namespace tool
