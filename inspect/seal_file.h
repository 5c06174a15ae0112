// The file in which a machine's seals lie:
//
//   SealFileHeader; for each part a SealFilePart, `leftOut` extents, `groups` GroupSeals;
//   the SHA-256 of everything before it
//
// All integers are little-endian.
#pragma once
#include "inspect/seal.h"

namespace inspect {

struct SealFileHeader {
    char magic[8];  // "KVRSEAL1"
    std::uint64_t parts;
};
static_assert(sizeof(SealFileHeader) == 16);

struct SealFilePart {
    std::uint32_t disk, volume;
    std::uint64_t offset, length;
    std::int64_t takenAt;
    std::uint32_t fileSystem, merged;
    std::uint64_t leftOut, groups;
};
static_assert(sizeof(SealFilePart) == 56);
static_assert(sizeof(Extent) == 16);

// Both throw Error. The file is written whole: who reads it finds the old or the new one, also after a crash.
std::vector<PartSeal> LoadSeals(const std::string& path);
void SaveSeals(const std::string& path, const std::vector<PartSeal>& parts);

}  // namespace inspect
