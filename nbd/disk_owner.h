// Which machine a disk belongs to. Two machines on one disk damage what the first one keeps there: where the
// second is not protected it changes the very sectors on which the first one's changes rest, and where it is,
// its first boot takes the storage for its own.
#pragma once
#include <optional>
#include "nbd/disk_mark.h"
#include "nbd/machine_folder.h"

namespace nbd {

// What a machine is called on its disks' marks; it gets its identity when it is first asked for. Throws Error.
std::string IdentityOf(const MachineFolder& folder);

// Whose a disk is, unless it is that machine's or nobody's. The machine may have been moved: its disks follow
// it, unless what is in its old place is the machine too. Throws Error.
std::optional<DiskMark> OtherOwner(const MachineFolder& folder, const FolderDisk& disk);
// The machine that a mark names, where it still is; nothing when it is gone or another one has its place.
std::optional<MachineFolder> FindMachine(const DiskMark& mark);

// A sentence with what to do, for a disk that is asked for as one of a new machine.
void RequireNobodys(const std::string& disk);
// Throws Error for a machine that has a disk of another one.
void RequireOwn(const MachineFolder& folder);
// Marks every disk as the machine's, whosever it was. Throws Error.
void MarkDisks(const MachineFolder& folder);
// The machine gives up what it has: the disks that bear its mark are nobody's, but for one that cannot be
// reached.
void ReleaseDisks(const MachineFolder& folder);

}  // namespace nbd
