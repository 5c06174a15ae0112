// Takes a machine's seals along when a merge has changed a volume's fixed state on purpose.
#pragma once
#include <atomic>
#include <set>
#include <thread>
#include "nbd/log.h"
#include "nbd/machine_folder.h"

namespace nbd {

// Does nothing for a machine that has no seals. Its functions are called by one thread at a time and never
// throw: what cannot be done is noted in the log, and `kvrhost verify` says of such a volume that it has no
// seal.
class SealKeeper {
public:
    SealKeeper(const MachineFolder& folder, Log& log) : folder_(folder), log_(log) {}
    ~SealKeeper() { Stop(); }
    SealKeeper(const SealKeeper&) = delete;
    SealKeeper& operator=(const SealKeeper&) = delete;

    // A boot is up that merged these volumes: their seals hold no more from now on. Those of the volumes that
    // are protected in this boot are taken anew behind everybody's back, also those that an earlier boot left
    // so.
    void BootIsUp(const std::set<unsigned>& merged, const std::set<unsigned>& protectedNow);
    // Before the boot ends. What is not finished is begun anew in the next one.
    void Stop();

private:
    void Mark(const std::set<unsigned>& merged);
    void RenewMarked(const std::set<unsigned>& protectedNow);

    const MachineFolder& folder_;
    Log& log_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace nbd
