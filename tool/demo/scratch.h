// The folder in which a run keeps its disk images, and the process that looks after it.
#pragma once
#include <cstdint>
#include <functional>
#include <string>

namespace tool {

// Makes a new folder below `parent` (empty: below $TMPDIR, or /tmp), runs `work` with its path in a process of
// its own and removes the folder however that process ended: by its return, by a signal to either process, or
// because the hosted kernel stopped it. Returns the exit code of `work`, or 128 and the signal's number. A
// process of its own is what makes that sure: a kernel that stops on a fault cannot clean up after itself.
//
// Throws Error when the folder cannot be made or its file system has less than `needed` bytes free. `work`
// must not let an exception out. To be called while the process has one thread.
int RunInScratch(const std::string& parent, std::uint64_t needed,
                 const std::function<int(const std::string& folder)>& work);

}  // namespace tool
