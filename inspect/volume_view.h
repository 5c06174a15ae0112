// Looking at a volume from outside: its files, what differs between two states of it, digests of its sectors.
// Nothing here knows the driver or a machine; a volume is whatever a VolumeView reads. This header is the
// bottom: the bytes of one state of a volume.
#pragma once
#include <cstdint>
#include <list>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace inspect {

class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Extent {
    std::uint64_t offset;  // bytes on the volume
    std::uint64_t length;  // bytes
    std::uint64_t End() const { return offset + length; }
    bool operator==(const Extent&) const = default;
};

// Ascending, apart, within `size` bytes.
std::vector<Extent> Normalised(std::vector<Extent> extents, std::uint64_t size);
// The parts of `extent` that lie in `of` (as Normalised leaves them).
std::vector<Extent> Common(const Extent& extent, const std::vector<Extent>& of);
// ... and those that do not.
std::vector<Extent> Without(const Extent& extent, const std::vector<Extent>& of);
std::uint64_t TotalLength(const std::vector<Extent>& extents);

class VolumeView {
public:
    virtual ~VolumeView() = default;
    virtual std::uint64_t Size() const = 0;         // bytes, whole sectors
    virtual std::uint32_t SectorBytes() const = 0;  // of a transfer; a power of two
    // Whole sectors inside the volume, of any number. Throws nothing: false when they cannot be read, Trouble()
    // then says why.
    [[nodiscard]] virtual bool Read(std::uint64_t offset, void* buffer, std::size_t length) = 0;
    virtual std::string Trouble() const = 0;  // of the last read that failed; empty when none has
};

// Reads of any alignment, small ones out of what was read before. Not synchronised.
class ByteReader {
public:
    explicit ByteReader(VolumeView& view) : view_(view) {}
    VolumeView& View() const { return view_; }
    // False when the range is not inside the volume or cannot be read.
    [[nodiscard]] bool Read(std::uint64_t offset, void* buffer, std::size_t length);

private:
    static constexpr std::size_t kWindow = 128 * 1024;  // bytes, many sectors
    static constexpr std::size_t kMostWindows = 256;
    struct Window {
        std::uint64_t number;
        std::vector<std::uint8_t> bytes;
    };
    const Window* Find(std::uint64_t number);

    VolumeView& view_;
    std::list<Window> windows_;  // the latest used first
    std::unordered_map<std::uint64_t, std::list<Window>::iterator> byNumber_;
};

}  // namespace inspect
