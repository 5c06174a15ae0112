// From a machine's volume to the files on it, where the file system is NTFS.
#pragma once
#include <string>
#include <vector>
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

// A line for each volume whose file system can only be read, with the reason.
inline std::vector<std::string> ReadOnlyVolumes(Machine& machine) {
    std::vector<std::string> lines;
    for (const Volume* volume : machine.Volumes()) {
        const auto* files = dynamic_cast<const GuestFileSystem*>(volume->files.get());
        const std::string why = files == nullptr ? "" : files->ReadOnlyReason();
        if (why.empty()) continue;
        lines.push_back("HarddiskVolume" + std::to_string(volume->device->Number()));
        lines.back().append(" can only be read: ").append(why);
    }
    return lines;
}

}  // namespace machine
