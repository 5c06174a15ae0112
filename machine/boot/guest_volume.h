// From a machine's volume to the files on it, where the file system is NTFS.
#pragma once
#include "machine/boot/machine.h"
#include "machine/files/guest_files.h"

namespace machine {

// Null when nothing or something else is mounted. Valid until the boot ends or the volume is removed.
inline GuestFileSystem* NtfsOn(Machine& machine, unsigned volume) {
    Volume* found = machine.VolumeOf(volume);
    const bool ntfs =
        found != nullptr && found->files != nullptr && found->files->Kind() == FileSystemKind::Ntfs;
    return ntfs ? dynamic_cast<GuestFileSystem*>(found->files.get()) : nullptr;
}

}  // namespace machine
