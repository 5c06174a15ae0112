// A part of a disk image or block device, read-only and without a lock: what lies below everything else. Any
// number of threads may read at once.
#pragma once
#include <string>
#include "inspect/volume_view.h"
#include "posix/file_io.h"

namespace inspect {

class ImageWindow final : public VolumeView {
public:
    // Throws Error.
    ImageWindow(const std::string& path, std::uint64_t offset, std::uint64_t length);

    std::uint64_t Size() const override { return length_; }
    std::uint32_t SectorBytes() const override { return 512; }
    [[nodiscard]] bool Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    std::string Trouble() const override { return {}; }
    // Whether the range is a hole of the image and so reads as zeros.
    bool IsHole(std::uint64_t offset, std::uint64_t length) const;

private:
    std::string path_;
    posix::File file_;
    std::uint64_t offset_, length_;
};

// Bytes. Throws Error.
std::uint64_t SizeOfImage(const std::string& path);

}  // namespace inspect
