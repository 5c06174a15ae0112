#include "machine/boot/volume_numbers.h"
#include <algorithm>
#include <cstring>
#include "machine/disk/device_support.h"

namespace machine {
namespace {

constexpr char16_t kKey[] = u"\\Registry\\Machine\\System\\MountedDevices";

constexpr std::ptrdiff_t kSignatureBytes = 4;

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
    const auto set = [](std::uint8_t byte) { return byte != 0; };
    return identity.size() >= kSignatureBytes &&
           (identity.size() == sizeof(Guid) ||
            std::any_of(identity.begin(), identity.begin() + kSignatureBytes, set));
}

host::RegistryValue Encode(const KnownVolume& volume) {
    host::RegistryValue value{REG_BINARY, {}};
    for (unsigned byte = 0; byte < sizeof(std::uint32_t); ++byte)
        value.data.push_back(static_cast<UCHAR>(volume.disk >> (8 * byte)));
    value.data.insert(value.data.end(), volume.identity.begin(), volume.identity.end());
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
