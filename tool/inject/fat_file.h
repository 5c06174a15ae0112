// One file of a FAT volume inside an image under edit.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "tool/inject/installation.h"

namespace tool {

class FatFile {
public:
    // `path` with backslashes from the volume's root. The image outlives it.
    FatFile(ImageEdit& image, const DiskRange& range, const std::string& path);

    // Throw Error when the volume is no FAT, has no such file or, for the new content, no room.
    std::vector<std::uint8_t> Read() const;
    // The file keeps its attributes.
    void Write(const std::vector<std::uint8_t>& bytes) const;

private:
    // The volume as a file of the host's, which the tools work on.
    void CopyOut(const std::string& file) const;
    void CopyBack(const std::string& file) const;

    ImageEdit& image_;
    const DiskRange range_;
    std::string path_;
};

}  // namespace tool
