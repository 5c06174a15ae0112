// An NTFS volume in a disk image as it lies there while no machine runs: which files it has, what they hold and
// where they lie. It reads the image and nothing else, so that what it says owes nothing to the driver or to
// the machine.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>
#include "tool/demo/volume_hash.h"

namespace tool {

struct OfflineFile {
    std::u16string path;  // begins with a backslash
    std::uint64_t size = 0;
    Digest digest{};  // of its content; meaningful when `hashed`
    bool directory = false;
    // A file with one name whose content is stored as it is: not compressed, encrypted or sparse, and not set
    // apart by a read-only or system attribute.
    bool plain = false;
    bool hashed = false;  // false where the content could not be read or the budget was used up
};

class OfflineVolume {
public:
    // Opens the volume of `length` bytes at `offset` of `image`, read-only. Throws Error, with a sentence that
    // names the image, when there is no NTFS volume or it cannot be read.
    OfflineVolume(const std::string& image, std::uint64_t offset, std::uint64_t length);
    ~OfflineVolume();
    OfflineVolume(const OfflineVolume&) = delete;
    OfflineVolume& operator=(const OfflineVolume&) = delete;

    // The size of the volume's sectors by the NTFS boot sector that stands there; 0 when none does.
    static std::uint32_t SectorBytes(const std::string& image, std::uint64_t offset);

    std::uint64_t FreeBytes() const;
    // Where a file's content lies; empty when there is no such file or its content lies in its record.
    std::vector<Extent> Extents(const std::u16string& path) const;
    // All files and folders but the file system's own, in the order of their paths, by which `skip` can leave
    // some out. Contents are hashed as long as they are within `budget` bytes together.
    std::vector<OfflineFile> Files(std::uint64_t budget,
                                   const std::function<bool(const std::u16string&)>& skip) const;

private:
    struct Mount;
    std::unique_ptr<Mount> mount_;
};

// Where the swap files lie on the volume.
std::vector<Extent> SwapFileExtents(const OfflineVolume& volume);
// Where all of the driver's own files lie: the swap files, the map and the configuration.
std::vector<Extent> DriverFileExtents(const OfflineVolume& volume);
// Whether the path names one of the driver's storage files.
bool IsDriverStorage(const std::u16string& path);

}  // namespace tool
