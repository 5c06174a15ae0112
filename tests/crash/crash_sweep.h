// What the crash tests share: a computer is stopped at its first, second, third ... write to a disk or the
// registry during one operation, until the operation gets through, and after each cut the next boot is looked
// at. A failure names the scenario and the cut, which replay it: every computer starts from the same image.
//   KVR_LONG=1 also tears the write at more places, with either state of the directory, and has a disk with a
//   write cache lose more subsets
#pragma once
#include <functional>
#include <gtest/gtest.h>
#include "platform/owners.h"
#include "tests/support/protected_computer.h"
#include "tests/support/volume_model.h"

namespace crash {

using namespace support;

struct CutPoint {
    std::uint64_t nth;   // the write that does not complete, counted from 1
    std::uint32_t kept;  // leading sectors of it that still reach the disk
    bool journaled;      // the directory lost what its journal did not have
    std::uint32_t seed;  // what a data disk with a write cache keeps of what was not flushed, see CachedDisk
    bool struck = true;  // false: the operation got through, and only then the power failed
};

struct Scenario {
    std::string name;
    const ComputerImage* start = nullptr;
    std::vector<std::uint32_t> kept = {0};  // sectors of the torn write, each a pass of its own
    bool journaled = false;  // also, for the first of `kept`, with the directory as its journal has it
    std::function<void(ProtectedComputer&)> prepare = {};  // with the power off; the cut is armed afterwards
    std::function<void(ProtectedComputer&)> operate = {};  // may end the boot
    // The power is off and back: what the next boot finds. Called for the operation that got through, too.
    std::function<void(ProtectedComputer&, const CutPoint&)> check = {};
    // Of what a write cache loses, each a pass of its own for the first of `kept`.
    unsigned subsets = 1;
};

// Runs the scenario at every cut; returns how many cuts struck.
unsigned Sweep(const Scenario& scenario);

// A sector of the system volume that belongs to nobody. A sector of the data volume's region holds the stamp
// that FixedStamp gives.
inline constexpr std::uint64_t kSystemRegion = 14 * kMiB;
inline constexpr char16_t kConfigPath[] = u"\\Windows\\system32\\drivers\\kvr.cfg";

// A computer of small disks whose data volume holds a stamp in every sector, files or not; nothing configured.
std::unique_ptr<ProtectedComputer> StampedComputer(const ComputerOptions& options);

// Raw writes and reads of the data volume's region, in sectors of 512 bytes. A write stamps its sectors
// stamp, stamp + 1, ...
void WriteStamps(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count, std::uint64_t stamp);
std::vector<std::uint8_t> ReadSectors(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count);
std::vector<std::uint8_t> MediumSectors(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count);
// The one of `stamps` that the sector at `data` holds; fails when it holds none of them.
std::uint64_t StampAmong(const std::uint8_t* data, const std::vector<std::uint64_t>& stamps);

// The sectors that are the driver's to write: the storage files and kvr.cfg, wherever they ever lay.
class OwnSectors {
public:
    void Learn(ProtectedComputer& computer);
    // Sectors of the data volume's region that may change as well.
    void LearnRegion(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count);
    // Nothing else differs between the image and the computer's media.
    void ExpectOthersUnchanged(const ComputerImage& before, ProtectedComputer& now) const;

private:
    std::vector<bool> system_, data_;
};

enum class Storage { Works, Reported };

// A booted computer's volume is protected with its storage, or reported unprotected and why, and then repaired
// by making the storage once more. Either way writes are redirected and read back in the end, and the boot
// after them keeps them or not as configured. Returns what was found at first; ends with the power off.
Storage ExpectUsable(ProtectedComputer& computer, bool keeps);

}  // namespace crash
