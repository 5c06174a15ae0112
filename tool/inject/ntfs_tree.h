// The files of an NTFS volume inside an image under edit. Paths are UTF-8 from the volume's root, their parts
// apart by backslashes, their letters' case of no matter.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "tool/inject/image_edit.h"

namespace tool {

class NtfsTree {
public:
    // Mounts the volume. Throws Error with the cause: no NTFS, encrypted as a whole, hibernated, not dismounted
    // cleanly, sectors of other than 512 bytes. Mounting writes nothing. The image outlives it.
    NtfsTree(ImageEdit& image, std::uint64_t offset, std::uint64_t length);
    ~NtfsTree();
    NtfsTree(const NtfsTree&) = delete;
    NtfsTree& operator=(const NtfsTree&) = delete;

    bool Exists(const std::string& path) const;
    // Throws Error when there is none, or it cannot be read.
    std::vector<std::uint8_t> Read(const std::string& path) const;
    // The file then holds exactly these bytes. A new one has the permissions that its folder gives. Throws
    // Error, for want of room as well; the volume is then of no further use and nothing may be committed.
    void Write(const std::string& path, const std::vector<std::uint8_t>& bytes);
    // Throws Error when it cannot be deleted. What is not there is deleted already.
    void Remove(const std::string& path);
    // Where each 512 bytes of the file lie, as byte offsets on the volume. Throws Error for a file that is not
    // stored as it is: compressed, encrypted, sparse, or inside its record.
    std::vector<std::int64_t> SectorOffsets(const std::string& path) const;
    std::uint64_t FreeBytes() const;
    // Ends the mount, writing what the library still holds. Throws Error. The destructor does it too, silently.
    void Close();

private:
    struct Mount;
    std::unique_ptr<Mount> mount_;
};

}  // namespace tool
