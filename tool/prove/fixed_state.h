// The volume's own sectors as the disk has them between two boots, outside of what may change: the driver's own
// files, and those few of Windows whose sectors are written without the file system or before it is there.
#pragma once
#include <string>
#include "inspect/seal.h"

namespace tool {

class FixedState {
public:
    // Bytes on the disk image; `root` is the folder of Windows on the volume, its parts apart by backslashes.
    FixedState(std::string image, std::uint64_t offset, std::uint64_t length, std::string root);

    // Takes what is there for the fixed state. Throws inspect::Error, as Changes() does.
    void Take();
    // What differs from it, in words: how much and whose; empty when nothing does.
    std::string Changes() const;
    std::uint64_t Covered() const;  // bytes that it speaks for

private:
    std::vector<inspect::Extent> LeftOut(inspect::ImageWindow& window) const;

    std::string image_, root_;
    inspect::PartSeal seal_;
};

}  // namespace tool
