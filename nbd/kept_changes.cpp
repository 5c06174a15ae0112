#include "nbd/kept_changes.h"
#include <algorithm>
#include <cstring>
#include <memory>
#include "client/driver_switches.h"
#include "client/status.h"
#include "formats/saved_map.h"
#include "machine/boot/registry_file.h"
#include "machine/boot/volume_numbers.h"
#include "machine/disk/device_support.h"

namespace nbd {
namespace {

using machine::Partition;

std::unique_ptr<machine::RegistryFile> OpenRegistry(const MachineFolder& folder) {
    std::string error;
    auto registry = machine::RegistryFile::Open(folder.File(kRegistryFile), error);
    if (registry == nullptr) throw Error(error);
    return registry;
}

// Adds what the run's entries redirect; false when it holds none or cannot be read, which ends the map.
bool AddRun(machine::HostDisk& disk, const Partition& partition, const MAP_LOCATION_ENTRY& run,
            std::uint64_t& bytes) {
    const std::uint64_t sector = disk.SectorSize();
    const std::uint64_t length = (run.ulLength + sector - 1) / sector * sector;
    const std::uint64_t offset = run.ulSector * sector;
    if (offset > partition.length || length > partition.length - offset) return false;
    std::vector<std::uint8_t> data(length);
    if (!NT_SUCCESS(disk.Read(partition.offset + offset, data.data(), data.size()))) return false;
    bool any = false;
    for (std::size_t at = 0; at + sizeof(SWAP_MAP_ENTRY) <= run.ulLength; at += sizeof(SWAP_MAP_ENTRY)) {
        SWAP_MAP_ENTRY entry;
        std::memcpy(&entry, &data[at], sizeof entry);
        if (IsEmptySlot(&entry) || !VerifyMapEntry(&entry)) continue;
        any = true;
        if (!IsFreeEntry(&entry)) bytes += entry.ulSectors * sector;
    }
    return any;
}

std::uint64_t BytesIn(machine::HostDisk& disk, const Partition& partition,
                      const std::vector<std::uint8_t>& place) {
    std::uint64_t bytes = 0;
    for (std::size_t at = 0; at + sizeof(MAP_LOCATION_ENTRY) <= place.size();
         at += sizeof(MAP_LOCATION_ENTRY)) {
        MAP_LOCATION_ENTRY run;
        std::memcpy(&run, &place[at], sizeof run);
        if (!IsUsableRun(&run) || !AddRun(disk, partition, run, bytes)) break;
    }
    return bytes;
}

}  // namespace

std::vector<KeptChanges> KeptChangesOn(const MachineFolder& folder, unsigned disk, machine::HostDisk& medium) {
    const auto registry = OpenRegistry(folder);
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        return NT_SUCCESS(medium.Read(offset, buffer, length));
    };
    const machine::PartitionTable table = machine::ReadPartitionTable(read, medium.Size(), medium.SectorSize());
    machine::VolumeNumbers numbers(*registry, kSystemVolume - 1);
    std::vector<KeptChanges> found;
    for (const Partition& partition : table.partitions) {
        const std::optional<unsigned> number = numbers.Take(disk, partition);
        if (!number) continue;
        KeptChanges kept{u"\\Device\\HarddiskVolume" + machine::Decimal(*number), partition.identity, {}, 0};
        host::RegistryValue value;
        if (!NT_SUCCESS(registry->Query(ctl::kDriverKey, kept.volume, value))) continue;
        kept.place.assign(value.data.begin(), value.data.end());
        kept.bytes = BytesIn(medium, partition, kept.place);
        found.push_back(std::move(kept));
    }
    return found;
}

void ForgetChanges(const MachineFolder& folder, const std::vector<KeptChanges>& changes) {
    const auto registry = OpenRegistry(folder);
    NTSTATUS status = STATUS_SUCCESS;
    for (const KeptChanges& kept : changes)
        if (NT_SUCCESS(status)) status = registry->Delete(ctl::kDriverKey, kept.volume);
    if (NT_SUCCESS(status)) status = registry->Flush();
    if (!NT_SUCCESS(status))
        throw Error("cannot write " + folder.File(kRegistryFile) + ": " + ctl::StatusText(status));
}

}  // namespace nbd
