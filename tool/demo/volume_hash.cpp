#include "tool/demo/volume_hash.h"
#include <algorithm>
#include <cstring>
#include <memory>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>
#include "posix/file_io.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr std::uint64_t kPiece = 64 * 1024;

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

// The first byte of [at, end) that is no hole, or `end`.
std::uint64_t SkipHole(int file, std::uint64_t at, std::uint64_t end) {
    const off_t data = lseek(file, static_cast<off_t>(at), SEEK_DATA);
    if (data < 0) return errno == ENXIO ? end : at;  // a device that knows no holes
    return std::min(static_cast<std::uint64_t>(data), end);
}

bool IsZero(const std::vector<char>& data, std::size_t length) {
    return data[0] == 0 && std::memcmp(data.data(), data.data() + 1, length - 1) == 0;
}

// Hashes the range's content: each piece that is not all zeros, behind its place. Pieces are cut at multiples
// of kPiece on the volume and at the range's ends, so the same content gives the same pieces however it is
// stored.
void AddRange(Sha256& hash, int file, std::uint64_t volume, std::uint64_t begin, std::uint64_t end) {
    std::vector<char> data(kPiece);
    std::uint64_t at = begin;
    while (at < end) {
        const std::uint64_t next = SkipHole(file, volume + at, volume + end) - volume;
        if (next > at) at = std::max(next / kPiece * kPiece, at);
        if (at >= end || next >= end) break;
        const std::uint64_t stop = std::min((at / kPiece + 1) * kPiece, end);
        const auto length = static_cast<std::size_t>(stop - at);
        if (!posix::ReadAt(file, data.data(), length, volume + at))
            throw Error(std::string("cannot read the disk image: ") + std::strerror(errno));
        if (!IsZero(data, length)) {
            const std::uint64_t place[] = {at, length};
            hash.Add(place, sizeof place);
            hash.Add(data.data(), length);
        }
        at = stop;
    }
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
        AddRange(hash, file.Get(), offset, at, gap.offset);
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
