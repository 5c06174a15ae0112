#include "tool/demo/volume_hash.h"
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include "posix/file_io.h"
#include "tool/demo/sparse_file.h"
#include "tool/error.h"

namespace tool {
VolumeHash HashVolume(const std::string& image, std::uint64_t offset, std::uint64_t length,
                      const std::vector<Extent>& excluded) {
    const posix::File file(open(image.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) throw Error("cannot read " + image + ": " + std::strerror(errno));
    inspect::Sha256 hash;
    VolumeHash result;
    std::uint64_t at = 0;
    std::vector<Extent> gaps = inspect::Normalised(excluded, length);
    gaps.push_back({length, 0});
    for (const Extent& gap : gaps) {
        // Each piece behind its place on the volume.
        ForEachPiece(file.Get(), offset, offset + at, offset + gap.offset,
                     [&](std::uint64_t where, std::span<const char> piece) {
                         const std::uint64_t place[] = {where - offset, piece.size()};
                         hash.Add(place, sizeof place);
                         hash.Add(piece.data(), piece.size());
                     });
        result.covered += gap.offset - at;
        at = gap.offset + gap.length;
    }
    const std::uint64_t covered = result.covered;
    hash.Add(&covered, sizeof covered);
    result.digest = hash.Final();
    return result;
}

std::string Short(const Digest& digest) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < 6; ++i) {
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}

}  // namespace tool
