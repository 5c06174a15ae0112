#include "nbd/seal_keeper.h"
#include <system_error>
#include <unistd.h>
#include "nbd/sealing.h"

namespace nbd {

void SealKeeper::Mark(const std::set<unsigned>& merged) {
    std::vector<inspect::PartSeal> parts = inspect::LoadSeals(folder_.File(kSealFile));
    for (inspect::PartSeal& part : parts) part.merged |= merged.contains(part.volume);
    inspect::SaveSeals(folder_.File(kSealFile), parts);
}

void SealKeeper::RenewMarked(const std::set<unsigned>& protectedNow) {
    const std::string path = folder_.File(kSealFile);
    std::vector<inspect::PartSeal> parts = inspect::LoadSeals(path);
    for (inspect::PartSeal& part : parts) {
        if (!part.merged || !protectedNow.contains(part.volume)) continue;
        if (!Renew(folder_, part, stop_, [](const char*, std::uint64_t, std::uint64_t) {})) return;
        inspect::SaveSeals(path, parts);
        log_.Line("server: the seal of " + NameOf(part) + " is renewed after its merge");
    }
}

void SealKeeper::BootIsUp(const std::set<unsigned>& merged, const std::set<unsigned>& protectedNow) {
    Stop();
    if (access(folder_.File(kSealFile).c_str(), F_OK) != 0) return;
    try {
        if (!merged.empty()) Mark(merged);
        thread_ = std::thread([this, protectedNow] {
            try {
                RenewMarked(protectedNow);
            } catch (const std::exception& error) {
                log_.Line(std::string("server: a seal is not renewed: ") + error.what());
            }
        });
    } catch (const std::exception& error) {
        log_.Line(std::string("server: the seals are not renewed: ") + error.what());
    }
}

void SealKeeper::Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    stop_ = false;
}

}  // namespace nbd
