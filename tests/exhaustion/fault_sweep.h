// What the exhaustion tests share: one scenario is run again and again, each time with the first, second, third
// ... call of one kind failing, until it gets through without a failure, for every kind of call that it makes.
// After each run nothing may have leaked, the maps must be sound, and what the scenario promises must hold. A
// failure names the scenario, the kind and the number of the call, which replay it.
// Then the same with every later call failing as well, as when memory stays short.
#pragma once
#include <functional>
#include <gtest/gtest.h>
#include "driver/record/volume_extension.h"
#include "platform/host/check/injector.h"
#include "platform/owners.h"
#include "tests/support/protected_computer.h"
#include "tests/support/volume_model.h"

namespace exhaustion {

using namespace support;

// What was made to fail. Count: nothing.
struct Injected {
    host::Fault kind = host::Fault::Count;
    ULONGLONG nth = 0;
    bool onwards = false;  // every later call of the kind as well
    bool IsMemory() const { return kind == host::Fault::Allocate; }
    std::string Text() const;
};

struct Scenario {
    std::string name;
    const ComputerImage* start;
    std::function<void(ProtectedComputer&)> prepare;                  // may be empty; with the power off
    std::function<void(ProtectedComputer&)> operate;                  // the faults strike in here
    std::function<void(ProtectedComputer&, const Injected&)> verify;  // without faults; may end the boot
    // Threads that the operation starts are waited for within it: the calls they make are part of the count.
    bool waitForThreads = true;
};

// Runs the scenario with every fault; returns how many struck.
unsigned Sweep(const Scenario& scenario);

// Nothing leaked, and the maps of every volume are sound.
void ExpectSound(const char* when);

// The data volume's record of the present boot, null when it has no filter.
PVOLUME_EXTENSION DataVolume(ProtectedComputer& computer);

// ---- a protected computer, its map in small pieces, and its first sectors ---------------------------------
inline constexpr std::uint64_t kSectors = 1024;  // of the region that are looked at

// The stamp of the sectors that the image has redirected.
inline std::uint64_t KeptStamp(std::uint64_t sector) {
    return 6'000'000 + sector;
}
inline bool IsKept(std::uint64_t sector) {
    return (sector >= 100 && sector < 116) || (sector >= 132 && sector < 148);
}

// Sectors 100 to 115 and 132 to 147 redirected and saved in the map.
const ComputerImage& ProtectedImage();     // keeps its redirections
const ComputerImage& CoarseImage();        // the same with fewer, larger pieces
const ComputerImage& UnconfiguredImage();  // stamped, nothing else
ComputerImage MakeProtected(const ComputerOptions& options, std::uint64_t swapBytes);

// What requests to the data volume are sent to.
PDEVICE_OBJECT TopDevice(ProtectedComputer& computer);
// A raw request whose pages the driver has to lock.
NTSTATUS Transfer(ProtectedComputer& computer, UCHAR major, std::uint64_t sector,
                  std::vector<std::uint8_t>& data);
NTSTATUS WriteStamps(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count,
                     std::uint64_t stamp);
// What sectors hold, by stamp; 0 for a sector that holds none of those given for it.
using Choices = std::function<std::vector<std::uint64_t>(std::uint64_t sector)>;
std::vector<std::uint64_t> View(ProtectedComputer& computer, const Choices& choices);
std::vector<std::uint64_t> Medium(ProtectedComputer& computer, const Choices& choices);
// The fixed sectors, on the medium.
void ExpectMediumUnchanged(ProtectedComputer& computer);

}  // namespace exhaustion
