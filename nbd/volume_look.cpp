#include "nbd/volume_look.h"
#include "client/status.h"
#include "machine/boot/any_file_system.h"
#include "machine/boot/machine.h"
#include "machine/disk/host_disk.h"
#include "nbd/looked_at.h"
#include "nbd/volume_description.h"

namespace nbd {

// By a boot without the driver.
std::vector<tool::wire::VolumeText> LookAtVolumes(const MachineFolder& folder) {
    machine::MachineOptions options;
    options.mostVolumes = kSystemVolume - 1;
    options.systemVolume = 0;
    options.fileSystem = [](const machine::VolumeDevice&) { return machine::AnyFileSystem(); };
    for (const FolderDisk& disk : folder.disks) {
        std::string error;
        std::shared_ptr<machine::Disk> medium =
            machine::HostDisk::Open(folder.DiskPath(disk), disk.sectorBytes, error);
        if (medium == nullptr) throw Error(error);
        options.disks.push_back({.medium = std::make_shared<LookedAt>(std::move(medium))});
    }
    machine::Machine machine(std::move(options));
    const NTSTATUS status = machine.PowerOn();
    if (!NT_SUCCESS(status)) throw Error("the disks cannot be looked at: " + ctl::StatusText(status));
    std::vector<tool::wire::VolumeText> volumes;
    for (machine::Volume* volume : machine.Volumes()) volumes.push_back(DescribeVolume(machine, *volume));
    machine.PowerCut();
    return volumes;
}

}  // namespace nbd
