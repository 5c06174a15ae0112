// Sparse disk images as files: copies that leave holes as holes.
#pragma once
#include <cstdint>
#include <string>

namespace tool {

// Copies a file, holes as holes; where the file system can share the blocks of both, it does. Throws Error.
void CopySparse(const std::string& from, const std::string& to);
// Copies `length` bytes at `offset` of `from` into the file `to`, holes and zeros as holes. Throws Error.
void ExtractSparse(const std::string& from, std::uint64_t offset, std::uint64_t length, const std::string& to);
// The bytes that the file takes on its disk.
std::uint64_t AllocatedBytes(const std::string& path);

}  // namespace tool
