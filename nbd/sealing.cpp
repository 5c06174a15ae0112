#include "nbd/sealing.h"
#include <ctime>
#include "machine/boot/volume_numbers.h"
#include "machine/partition/formatter.h"

namespace nbd {
namespace {

using inspect::PartSeal;

// The volumes of a disk and what lies between them, ascending.
class Parts {
public:
    explicit Parts(const MachineFolder& folder)
        : folder_(folder), registry_(OpenRegistry(folder)), numbers_(*registry_, kSystemVolume - 1) {}

    std::vector<PartSeal> All() {
        for (std::uint32_t disk = 0; disk < folder_.disks.size(); ++disk) AddDisk(disk);
        return std::move(parts_);
    }

private:
    // A copy for this look alone: nothing is ever written back.
    static std::unique_ptr<machine::RegistryFile> OpenRegistry(const MachineFolder& folder) {
        std::string error;
        auto registry = machine::RegistryFile::Open(folder.File(kRegistryFile), error);
        if (registry == nullptr) throw Error(error);
        return registry;
    }

    void AddDisk(std::uint32_t disk) {
        const std::string path = folder_.DiskPath(folder_.disks[disk]);
        machine::PartitionTable table;
        std::string error;
        if (!machine::ReadImagePartitions(path, folder_.disks[disk].sectorBytes, table, error))
            throw Error(error);
        std::map<std::uint64_t, PartSeal> volumes;
        for (const machine::Partition& partition : table.partitions) {
            PartSeal& part = volumes[partition.offset];
            part.volume = numbers_.Take(disk, partition).value_or(0);
            part.length = partition.length;
        }
        std::uint64_t at = 0;
        for (auto& [offset, part] : volumes) {
            Add(disk, at, offset - at, {});
            Add(disk, offset, part.length, part);
            at = offset + part.length;
        }
        Add(disk, at, inspect::SizeOfImage(path) - at, {});
    }

    void Add(std::uint32_t disk, std::uint64_t offset, std::uint64_t length, PartSeal part) {
        if (length == 0) return;
        part.disk = disk;
        part.offset = offset;
        part.length = length;
        parts_.push_back(std::move(part));
    }

    const MachineFolder& folder_;
    std::unique_ptr<machine::RegistryFile> registry_;
    machine::VolumeNumbers numbers_;
    std::vector<PartSeal> parts_;
};

std::string ImageOf(const MachineFolder& folder, const PartSeal& part) {
    if (part.disk >= folder.disks.size())
        throw Error("disk" + std::to_string(part.disk) + " is not there any more");
    return folder.DiskPath(folder.disks[part.disk]);
}

// Where the driver's own files lie now; none on what cannot be read as a file system.
std::vector<inspect::Extent> OwnNow(const std::string& image, const PartSeal& part, FileSystemKind& kind) {
    if (part.volume == 0) return {};
    inspect::ImageWindow window(image, part.offset, part.length);
    try {
        const auto table = inspect::FileTable::Open(window);
        if (table == nullptr) return {};
        kind = table->Kind();
        return inspect::OwnExtents(*table, part.length);
    } catch (const inspect::Error&) {
        return {};
    }
}

}  // namespace

std::string NameOf(const PartSeal& part) {
    if (part.volume != 0) return "HarddiskVolume" + std::to_string(part.volume);
    return "disk" + std::to_string(part.disk) + ", " + std::to_string(part.length) +
           " bytes outside of volumes at " + std::to_string(part.offset);
}

bool Renew(const MachineFolder& folder, PartSeal& part, const std::atomic<bool>& stop,
           const inspect::Progress& progress) {
    const std::string image = ImageOf(folder, part);
    part.fileSystem = FileSystemKind::None;
    part.leftOut = OwnNow(image, part, part.fileSystem);
    part.takenAt = std::time(nullptr);
    part.merged = false;
    return inspect::TakeSeal(image, part, stop, progress);
}

std::vector<PartSeal> SealMachine(const MachineFolder& folder, const inspect::Progress& progress) {
    const std::atomic<bool> never{false};
    std::vector<PartSeal> parts = Parts(folder).All();
    for (PartSeal& part : parts) static_cast<void>(Renew(folder, part, never, progress));  // nothing stops it
    inspect::SaveSeals(folder.File(kSealFile), parts);
    return parts;
}

Verified VerifyPart(const MachineFolder& folder, const PartSeal& part, const inspect::Progress& progress) {
    const std::string image = ImageOf(folder, part);
    FileSystemKind kind = part.fileSystem;
    const std::vector<inspect::Extent> own = OwnNow(image, part, kind);
    const std::vector<inspect::Extent> changed = inspect::CompareSeal(image, part, own, progress);
    Verified verified;
    verified.changedBytes = inspect::TotalLength(changed);
    if (changed.empty()) return verified;
    inspect::ImageWindow window(image, part.offset, part.length);
    if (part.volume != 0)
        verified.changed = inspect::OwnersOf(window, changed, part.fileSystem);
    else
        for (const inspect::Extent& place : changed)
            verified.changed.push_back({place, {"the partition table or unused space"}});
    return verified;
}

}  // namespace nbd
