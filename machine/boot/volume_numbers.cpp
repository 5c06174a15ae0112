#include "machine/boot/volume_numbers.h"
#include <algorithm>
#include <cstring>
#include "machine/disk/device_support.h"

namespace machine {
namespace {

constexpr char16_t kKey[] = u"\\Registry\\Machine\\System\\MountedDevices";

std::u16string NameOf(unsigned number) {
    return u"\\Device\\HarddiskVolume" + Decimal(number);
}

std::optional<KnownVolume> Decode(const host::RegistryValue& value) {
    std::uint32_t disk = 0;
    if (value.data.size() < sizeof disk) return std::nullopt;
    std::memcpy(&disk, value.data.data(), sizeof disk);
    return KnownVolume{disk, {value.data.begin() + sizeof disk, value.data.end()}};
}

// Does it tell the partition on any disk?
bool IsUnique(const std::vector<std::uint8_t>& identity) {
    if (identity.size() == sizeof(Guid)) return true;
    std::uint32_t signature = 0;
    for (std::size_t i = 0; i < sizeof signature && i < identity.size(); ++i) signature |= identity[i];
    return signature != 0;
}

host::RegistryValue Encode(const KnownVolume& volume) {
    const std::uint32_t disk = volume.disk;
    host::RegistryValue value{REG_BINARY, std::vector<UCHAR>(sizeof disk + volume.identity.size())};
    std::memcpy(value.data.data(), &disk, sizeof disk);
    std::copy(volume.identity.begin(), volume.identity.end(), value.data.begin() + sizeof disk);
    return value;
}

}  // namespace

VolumeNumbers::VolumeNumbers(RegistryFile& registry, unsigned most) : registry_(registry), most_(most) {
    for (unsigned number = 1; number <= most_; ++number) {
        host::RegistryValue value;
        if (!NT_SUCCESS(registry_.Query(kKey, NameOf(number), value))) continue;
        if (std::optional<KnownVolume> known = Decode(value)) known_.emplace(number, std::move(*known));
    }
}

// On its own disk first: two disks may carry copies of one table.
std::optional<unsigned> VolumeNumbers::Find(unsigned disk, const std::vector<std::uint8_t>& identity) const {
    std::optional<unsigned> elsewhere;
    for (const auto& [number, volume] : known_) {
        if (volume.identity != identity || taken_.contains(number)) continue;
        if (volume.disk == disk) return number;
        if (!elsewhere && IsUnique(identity)) elsewhere = number;
    }
    return elsewhere;
}

std::optional<unsigned> VolumeNumbers::Take(unsigned disk, const Partition& partition) {
    std::optional<unsigned> number = Find(disk, partition.identity);
    if (!number) {
        number = known_.empty() ? 1 : known_.rbegin()->first + 1;
        if (*number > most_) return std::nullopt;
        changed_.insert(*number);
    }
    KnownVolume now{disk, partition.identity};
    KnownVolume& known = known_[*number];
    if (known != now) changed_.insert(*number);
    known = std::move(now);
    taken_.insert(*number);
    return number;
}

NTSTATUS VolumeNumbers::Save() {
    if (changed_.empty()) return STATUS_SUCCESS;
    NTSTATUS status = registry_.CreateKey(kKey);
    for (const unsigned number : changed_) {
        if (!NT_SUCCESS(status)) return status;
        status = registry_.Set(kKey, NameOf(number), Encode(known_.at(number)));
    }
    changed_.clear();
    return NT_SUCCESS(status) ? registry_.Flush() : status;
}

}  // namespace machine
