#include "nbd/boot_deeds.h"
#include <algorithm>
#include <utility>
#include "client/driver_switches.h"
#include "client/size_text.h"
#include "formats/space_limits.h"
#include "machine/partition/partition_table.h"

namespace nbd {
namespace {

constexpr std::string_view kTaken = "Kvr!AddProtectedVolume: ";
constexpr std::string_view kAction = " (Mode: PROTECTED, Action: ";
constexpr std::string_view kNotMerged = "Kvr!PreloadSwapMap: ";
constexpr std::string_view kWhyNotMerged = " is not merged, ";

std::string LastPart(std::string_view name) {
    return std::string(name.substr(name.rfind('\\') + 1));
}

std::u16string DeviceName(unsigned number) {
    const std::string digits = std::to_string(number);
    return u"\\Device\\HarddiskVolume" + std::u16string(digits.begin(), digits.end());
}

std::string Narrow(const std::u16string& name) {
    std::string text;
    for (const char16_t c : name) text += c < 0x7F ? static_cast<char>(c) : '?';
    return text;
}

std::string Amount(const PlaceOnDisk& place, const SavedChanges& changes) {
    return ctl::SizeText(changes.Sectors() * place.disk->SectorSize()) + " in " +
           ctl::CountText(changes.Ranges(), "range");
}

std::vector<machine::Partition> PartitionsOf(machine::Disk& disk) {
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        return NT_SUCCESS(disk.Read(offset, buffer, length));
    };
    return machine::ReadPartitionTable(read, disk.Size(), disk.SectorSize()).partitions;
}

}  // namespace

// As the boot will find and number them.
void BootDeeds::LookBefore(machine::Machine& machine, std::size_t disks, unsigned most) {
    before_.clear();
    {
        const std::lock_guard hold(lock_);
        orders_.clear();
    }
    machine::VolumeNumbers numbers(machine.Registry(), most);
    for (unsigned disk = 0; disk < disks; ++disk) {
        machine::Disk& medium = machine.MediumOf(disk);
        for (const machine::Partition& partition : PartitionsOf(medium)) {
            const std::optional<unsigned> number = numbers.Take(disk, partition);
            if (number) LookAt(machine, *number, {&medium, partition.offset, partition.length});
        }
    }
}

void BootDeeds::LookAt(machine::Machine& machine, unsigned number, const PlaceOnDisk& place) {
    host::RegistryValue value;
    const std::u16string name = DeviceName(number);
    if (!NT_SUCCESS(machine.Registry().Query(ctl::kDriverKey, name, value)) || value.data.empty()) return;
    const std::vector<std::uint8_t> location(value.data.begin(), value.data.end());
    before_[LastPart(Narrow(name))] = {place, location, ReadSavedChanges(place, location)};
}

void BootDeeds::NoteMessage(std::string_view message) {
    if (message.starts_with(kTaken)) {
        const std::size_t at = message.find(kAction);
        if (at == message.npos || at + kAction.size() >= message.size()) return;
        const int action = message[at + kAction.size()] - '0';
        const std::lock_guard hold(lock_);
        // The first section of a name counts.
        orders_.try_emplace(LastPart(message.substr(kTaken.size(), at - kTaken.size())), Order{action, {}});
    } else if (message.starts_with(kNotMerged)) {
        const std::size_t at = message.find(kWhyNotMerged);
        if (at == message.npos) return;
        std::string why(message.substr(at + kWhyNotMerged.size()));
        why.erase(why.find_last_not_of("\r\n ") + 1);
        const std::lock_guard hold(lock_);
        orders_[LastPart(message.substr(kNotMerged.size(), at - kNotMerged.size()))].notMerged = why;
    }
}

std::vector<BootDeed> BootDeeds::Tell(const std::vector<ctl::FixedVolume>& report) {
    std::vector<BootDeed> deeds;
    for (const auto& [name, before] : before_) {
        const auto volume =
            std::find_if(report.begin(), report.end(), [&, &wanted = name](const ctl::FixedVolume& each) {
                return LastPart(Narrow(each.name)) == wanted;
            });
        if (volume == report.end()) continue;
        const bool isSilent = before.changes.entries.empty() && before.changes.isSound && volume->state == 0;
        if (!isSilent) deeds.push_back(TellOne(name, before, *volume));
    }
    return deeds;
}

// How the telling of one volume ends.
BootDeed BootDeeds::Teller::Tell(const char* did, const std::string& text, bool asOrdered) const {
    const SavedChanges& had = before.changes;
    return {name,     did, had.Sectors() * before.place.disk->SectorSize(), had.Ranges(), name + ": " + text,
            asOrdered};
}

BootDeed BootDeeds::Teller::Kept() const {
    if (action == kKeep) return Tell("kept", "kept " + amount, true);
    std::string why = notMerged;
    const auto free = static_cast<std::uint64_t>(std::max<std::int64_t>(volume.SwapFree(), 0));
    if (why.empty() && action == kMerge && free <= kMergeSpaceLimit)
        why = "a merge needs more than " + ctl::SizeText(kMergeSpaceLimit) + " of free storage, there are " +
              ctl::SizeText(free);
    if (why.empty()) why = "storage: " + ctl::StorageText(volume.swapStatus);
    const char* const what = action == kMerge ? "was NOT merged, kept " : "was NOT discarded, kept ";
    return Tell("kept", what + amount + " (" + why + ")", false);
}

BootDeed BootDeeds::Teller::Gone() const {
    if (action == kKeep) return Tell("lost", "lost " + amount + " that were to be kept", false);
    if (action == kUnprotected) return Tell("dropped", "dropped " + amount + ", no longer protected", true);
    if (action == kDiscard) return Tell("dropped", "dropped " + amount, true);
    const SavedChanges missing = ChangesNotIn(before.place, before.changes);
    if (missing.entries.empty()) return Tell("merged", "merged " + amount, true);
    if (missing.entries.size() == before.changes.entries.size())
        return Tell("lost", "was NOT merged, lost " + amount, false);
    return Tell("merged", "merged " + amount + " but for " + Amount(before.place, missing) + ", which are lost",
                false);
}

BootDeed BootDeeds::TellOne(const std::string& name, const Before& before,
                            const ctl::FixedVolume& volume) const {
    const std::lock_guard hold(lock_);
    const auto found = orders_.find(name);
    const Order order = found == orders_.end() ? Order{kUnprotected, {}} : found->second;
    const Teller teller{name,         before,          volume,
                        order.action, order.notMerged, Amount(before.place, before.changes)};
    if (!before.changes.isSound) {
        const bool isLost = volume.state == 0;
        return teller.Tell(isLost ? "lost" : "nothing", "its saved map is damaged, what it held cannot be told",
                           !isLost);
    }
    if (before.changes.entries.empty()) return teller.Tell("nothing", "had no changes", true);
    const bool isKept = !ReadSavedChanges(before.place, before.location).entries.empty();
    return isKept ? teller.Kept() : teller.Gone();
}

}  // namespace nbd
