// From a machine's volume to the files on it, where the file system is NTFS.
#pragma once
#include "machine/files/guest_files.h"
#include "machine/boot/machine.h"
#include "machine/ntfs/file_system.h"

namespace machine {

// Null when nothing or something else is mounted. Valid until the boot ends or the volume is removed.
inline NtfsFileSystem* NtfsOn(Machine& machine, unsigned volume) {
    Volume* found = machine.VolumeOf(volume);
    return found == nullptr ? nullptr : dynamic_cast<NtfsFileSystem*>(found->files.get());
}

}  // namespace machine
