// `kvrhost demo`: a hosted computer with a real NTFS volume that the driver keeps in a fixed state, shown row
// by row over boots, with every claim measured. Each theme has a file of its own, demo_rows_*.cpp; stage.h is
// what they share, computer.h what they work with.
#pragma once
#include <string>

namespace tool {

struct DemoOptions {
    std::string image;    // a raw image to work on a copy of; empty: a new disk
    std::string scratch;  // where the scratch folder is made; empty: $TMPDIR or /tmp
    bool verbose = false;
};

// Exit codes: 0 all checks passed, 1 one failed, 128 + n ended by signal n. Throws Error when the demonstration
// cannot be given at all.
int RunDemo(const DemoOptions& options);

inline constexpr int kExitFailed = 1;
inline constexpr int kExitError = 2;

}  // namespace tool
