// From a machine's volume to the files on it, where the file system is NTFS.
#pragma once
#include "machine/guest_files.h"
#include "machine/machine.h"
#include "machine/ntfs_file_system.h"

namespace machine {

// Null when nothing or something else is mounted. Valid until the boot ends or the volume is removed.
inline NtfsFileSystem* NtfsOn(Machine& machine, unsigned volume) {
    Volume* found = machine.VolumeOf(volume);
    return found == nullptr ? nullptr : dynamic_cast<NtfsFileSystem*>(found->files.get());
}

}  // namespace machine
