// Digests of a part of a disk by which it is proved later that not one sector of it changed, or found which
// did.
//
// The part is cut into groups of 1 MiB. Each group that is not all zeros has a SHA-256, which is the proof, and
// a short tag of each of its blocks of 4 KiB, which finds the place. What is left out (the driver's own files)
// counts as zeros.
#pragma once
#include <array>
#include <atomic>
#include "formats/file_system_kind.h"
#include "inspect/file_table.h"
#include "inspect/image_window.h"
#include "inspect/sha256.h"

namespace inspect {

inline constexpr std::uint64_t kGroupBytes = 1024 * 1024;
inline constexpr std::uint64_t kBlockBytes = 4096;

struct GroupSeal {
    std::uint64_t number;  // of the group, from the part's begin
    Digest digest;
    std::array<std::uint32_t, kGroupBytes / kBlockBytes> tags;  // CRC-32 of its blocks
};
static_assert(sizeof(GroupSeal) == 1064);

struct PartSeal {
    std::uint32_t disk = 0;
    std::uint32_t volume = 0;  // its number; 0: between the volumes
    std::uint64_t offset = 0;  // bytes on the disk
    std::uint64_t length = 0;  // bytes
    std::int64_t takenAt = 0;  // seconds of the epoch
    FileSystemKind fileSystem = FileSystemKind::None;
    bool merged = false;            // since then: what it says holds no more
    std::vector<Extent> leftOut;    // Normalised
    std::vector<GroupSeal> groups;  // ascending; the others are zeros
};

// Where the driver's own files have their content, Normalised.
std::vector<Extent> OwnExtents(FileTable& table, std::uint64_t size);

// Fills `groups` of a part whose other fields are set, with several threads. False when `stop` came first.
// Throws Error. So does the comparison.
[[nodiscard]] bool TakeSeal(const std::string& image, PartSeal& part, const std::atomic<bool>& stop,
                            const Progress& progress);

// What changed since, in whole blocks, bytes of the part, Normalised; `ownNow`: what is left out as well.
std::vector<Extent> CompareSeal(const std::string& image, const PartSeal& part,
                                const std::vector<Extent>& ownNow, const Progress& progress);

}  // namespace inspect
