// The seals of a machine's disks: of each volume's fixed state without the driver's own files, and of what lies
// between the volumes. They are kept in the machine's folder, in the file "seal" (inspect/seal_file.h). The
// system disk, which every boot writes, has none.
//
// The images are read as they lie there, below the driver, so the machine may be on: what is protected stands
// still.
#pragma once
#include <set>
#include "inspect/owners.h"
#include "inspect/seal_file.h"
#include "nbd/machine_folder.h"

namespace nbd {

inline constexpr char kSealFile[] = "seal";

std::string NameOf(const inspect::PartSeal& part);

// Each throws Error or inspect::Error.

// New seals of everything, noted.
std::vector<inspect::PartSeal> SealMachine(const MachineFolder& folder, const inspect::Progress& progress);

// A new seal of the part's place as it is now; false when `stop` came first.
[[nodiscard]] bool Renew(const MachineFolder& folder, inspect::PartSeal& part, const std::atomic<bool>& stop,
                         const inspect::Progress& progress);

struct Verified {
    std::vector<inspect::Owned> changed;
    std::uint64_t changedBytes = 0;  // in whole blocks
};
Verified VerifyPart(const MachineFolder& folder, const inspect::PartSeal& part,
                    const inspect::Progress& progress);

}  // namespace nbd
