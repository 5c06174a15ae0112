// The acts of a proof, one a boot, in their order: for the program inside the guest, which plays them, and for
// the host, which looks at the volume's own sectors behind each.
#pragma once
#include <cstdint>

namespace proof {

// What the volume's own sectors must show, outside of the driver's files, when the act's boot is over.
enum class Sectors {
    Free,     // not protected: anything; they are the fixed state from here on
    Same,     // the fixed state, each sector
    Changed,  // a merge wrote into them: they differ, and are the fixed state from here on
};

struct Act {
    const char* name;
    const char* what;  // for people
    Sectors sectors;
    std::uint32_t seconds;  // that its boot may take on a fast machine
};

inline constexpr Act kActs[] = {
    {"setup", "the device, a first configuration, storage", Sectors::Free, 600},
    {"discard", "protected: a file is made, one is overwritten", Sectors::Same, 300},
    {"discarded", "both are as they were; now to be kept", Sectors::Same, 300},
    {"keep", "protected: a file is made, one is overwritten", Sectors::Same, 300},
    {"kept", "both are as they were left; to be merged", Sectors::Same, 300},
    {"merged", "one boot made them the volume's own", Sectors::Changed, 600},
    {"refused", "requests that would reach the fixed state", Sectors::Same, 300},
    {"late", "writing in the course of a shutdown", Sectors::Same, 300},
    {"gone", "what was written late is gone; protection off", Sectors::Same, 300},
    {"off", "nothing is protected; the storage is removed", Sectors::Free, 300},
};
inline constexpr std::uint32_t kActCount = sizeof(kActs) / sizeof(kActs[0]);  // they are numbered from 1

}  // namespace proof
