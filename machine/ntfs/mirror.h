// The copy that NTFS keeps of its first records ($MFTMirr). The library refuses a volume whose copy differs
// from the records; a machine that stopped between writing one and the other leaves just that.
#pragma once
#include "machine/ntfs/names.h"

namespace machine {

// Makes the copy equal to the records where it differs, or a record equal to its copy where only the copy is
// whole. Success when the two agree afterwards; STATUS_DISK_CORRUPT_ERROR when neither can be used.
[[nodiscard]] NTSTATUS RepairNtfsMirror(VolumeIo& io, NtfsNames& names);

}  // namespace machine
