#include "tool/demo/volume_hash.h"
#include <algorithm>
#include <cstring>
#include <memory>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>
#include "posix/file_io.h"
#include "tool/demo/sparse_file.h"
#include "tool/error.h"

namespace tool {
namespace {

class Sha256 {
public:
    Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
        if (context_ == nullptr || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1)
            throw Error("SHA-256 is not available");
    }
    void Add(const void* data, std::size_t length) {
        if (EVP_DigestUpdate(context_.get(), data, length) != 1) throw Error("SHA-256 failed");
    }
    Digest Final() {
        Digest digest;
        if (EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1) throw Error("SHA-256 failed");
        return digest;
    }

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

// Ascending, inside the volume and apart.
std::vector<Extent> Normalise(std::vector<Extent> extents, std::uint64_t length) {
    std::sort(extents.begin(), extents.end(), [](auto& a, auto& b) { return a.offset < b.offset; });
    std::vector<Extent> result;
    for (Extent extent : extents) {
        if (extent.offset >= length) break;
        extent.length = std::min(extent.length, length - extent.offset);
        if (!result.empty() && extent.offset <= result.back().offset + result.back().length) {
            const std::uint64_t end =
                std::max(result.back().offset + result.back().length, extent.offset + extent.length);
            result.back().length = end - result.back().offset;
        } else if (extent.length != 0) {
            result.push_back(extent);
        }
    }
    return result;
}

}  // namespace

VolumeHash HashVolume(const std::string& image, std::uint64_t offset, std::uint64_t length,
                      const std::vector<Extent>& excluded) {
    const posix::File file(open(image.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) throw Error("cannot read " + image + ": " + std::strerror(errno));
    Sha256 hash;
    VolumeHash result;
    std::uint64_t at = 0;
    std::vector<Extent> gaps = Normalise(excluded, length);
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

Digest HashBytes(const void* data, std::size_t length) {
    Sha256 hash;
    hash.Add(data, length);
    return hash.Final();
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
