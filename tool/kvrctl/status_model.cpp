#include "tool/kvrctl/status_model.h"
#include <algorithm>
#include <iterator>
#include "client/control_client.h"
#include "client/failure.h"
#include "tool/kvrctl/config_text.h"
#include "tool/kvrctl/storage_check.h"
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

bool IsAmong(const std::vector<std::u16string>& names, const std::u16string& name) {
    return std::any_of(names.begin(), names.end(),
                       [&](const std::u16string& each) { return EqualIgnoringCase(each, name); });
}

// Puts together what the driver, the configuration and the machine say.
class Gathering {
public:
    explicit Gathering(const Context& context) : context_(context), world_(context.world) {
        Client client = context.Open(Access::Read);
        scan_ = ScanConfig(tool::ConfigurationText(client.GetConfig()));
        fixed_ = client.FixedVolumes();
        removable_ = client.RemovableVolumes();
        status_.enabled = client.Enabled();
        notes_ = world_.Notes();
        status_.clock = ClockOf(world_);
    }

    MachineStatus Run() {
        status_.time = std::time(nullptr);
        status_.machine = world_.Name();
        status_.enabledNext = scan_.protection;
        status_.hardening = QueryHardening(world_);
        status_.deeds = notes_.deeds;
        for (const FixedVolume& volume : fixed_)
            if (!IsDisk(volume.name)) AddFixed(volume);
        for (const RemovableVolume& volume : removable_)
            if (!IsDisk(volume.name)) AddRemovable(volume);
        AddMissing();
        AddWarnings();
        return std::move(status_);
    }

private:
    VolumeStatus& Add(const std::u16string& name, bool removable) {
        VolumeStatus& volume = status_.volumes.emplace_back();
        volume.name = name;
        volume.removable = removable;
        volume.next = PlanOf(scan_, {name, removable}, status_.clock);
        if (const auto facts = world_.Facts(name)) volume.bytes = facts->bytes, volume.clients = facts->clients;
        return volume;
    }

    void AddFixed(const FixedVolume& told) {
        VolumeStatus& volume = Add(told.name, false);
        volume.isProtected = told.state != 0;
        volume.isHidden = told.state == 3;
        volume.room = RoomOf(told, world_.StorageReserve());
        volume.storage = StateOf(told, volume.room);
        if (told.state == 0 && told.swapTotal > 0 && volume.storage <= StorageState::Full &&
            volume.storage != StorageState::Making) {
            volume.fault = FaultOf(told, volume.next.keeps);
            if (!volume.fault.empty()) volume.storage = StorageState::Unsound;
        }
        if (status_.enabled && volume.next.isProtected)
            volume.trouble = StorageTrouble(told, status_.hardening.now);
        for (const auto& [name, rate] : notes_.bytesPerSecond)
            if (EqualIgnoringCase(name, told.name)) volume.bytesPerSecond = rate;
    }

    void AddRemovable(const RemovableVolume& told) {
        VolumeStatus& volume = Add(told.name, true);
        volume.isProtected = told.accessMode != 0;
        volume.isHidden = told.accessMode == 2;
    }

    // The fixed volumes that the text protects and the driver does not have.
    void AddMissing() {
        if (!scan_.protection) return;
        for (const Section& section : scan_.sections) {
            const VolumeSettings& settings = section.volume;
            const bool counts = section.kind == SectionKind::FixedVolume && settings.isListed &&
                                settings.isProtected && settings.switchWasOn;
            const auto same = [&](const FixedVolume& each) {
                return EqualIgnoringCase(each.name, settings.id);
            };
            if (!counts || std::any_of(fixed_.begin(), fixed_.end(), same)) continue;
            VolumeStatus& volume = Add(settings.id, false);
            volume.isThere = false;
            volume.trouble = "is to be protected and is not there";
        }
    }

    // The driver reports work on one volume's storage with every volume. Who is concerned is what the machine
    // says; where it says nothing, what is protected is not, nor what has its map's place in the registry: that
    // goes first and comes last.
    bool IsBeingMade(const std::u16string& name, bool isProtected) {
        if (notes_.knowsMaking) return IsAmong(notes_.making, name);
        if (isProtected) return false;
        const std::optional<Bytes> location = world_.ReadRegistry(name);
        return !location || location->empty();
    }

    StorageState StateOf(const FixedVolume& told, const StorageRoom& room) {
        static constexpr StorageState kBad[] = {StorageState::MapDamaged, StorageState::Missing,
                                                StorageState::NotHeld, StorageState::TooLarge};
        if (told.swapStatus == kSwapProvisioning && IsBeingMade(told.name, told.state != 0))
            return StorageState::Making;
        if (told.swapStatus >= kSwapMapBad && told.swapStatus - kSwapMapBad < std::size(kBad))
            return kBad[told.swapStatus - kSwapMapBad];
        if (room.usable != 0) return StorageState::Ready;
        return room.total != 0 || told.state != 0 ? StorageState::Full : StorageState::None;
    }

    // Of storage that no protection of this boot has tried. Where nobody can look, nothing is said.
    std::string FaultOf(const FixedVolume& told, bool keeps) const {
        try {
            return StorageFault(context_, told, keeps);
        } catch (const Failure&) {
            return {};
        }
    }

    void AddWarnings() {
        std::vector<Warning> own;
        for (const VolumeStatus& volume : status_.volumes) Judge(volume, own);
        // What the server says as well it says with more.
        const auto saysToo = [](const std::string& told, const std::string& text) {
            return told.starts_with(text);
        };
        for (const Warning& warning : own) {
            const bool twice =
                std::any_of(notes_.warnings.begin(), notes_.warnings.end(),
                            [&](const std::string& told) { return saysToo(told, warning.text); });
            if (!twice) status_.warnings.push_back(warning);
        }
        for (const std::string& told : notes_.warnings) status_.warnings.push_back({VolumeIn(told), told});
    }

    // The volume whose name begins the sentence.
    std::u16string VolumeIn(const std::string& sentence) const {
        for (const VolumeStatus& volume : status_.volumes)
            if (sentence.starts_with(ShortName(volume.name) + " ")) return volume.name;
        return {};
    }

    static void Judge(const VolumeStatus& volume, std::vector<Warning>& warnings) {
        const std::string name = ShortName(volume.name);
        if (!volume.trouble.empty()) warnings.push_back({volume.name, name + " " + volume.trouble});
        if (volume.next.isProtected && volume.next.fate == Fate::Merged &&
            volume.room.total - volume.room.used <= kMergeSpaceLimit)
            warnings.push_back({volume.name, name +
                                                 " is to be merged and will not be: a merge needs more than " +
                                                 SizeText(kMergeSpaceLimit) + " of free storage"});
        if (!volume.isProtected || volume.removable) return;
        const unsigned level = LevelOf(volume.room);
        if (level == kFullPercent || volume.storage == StorageState::Full)
            warnings.push_back({volume.name, name + " is FULL: writes find no room"});
        else if (level != 0)
            warnings.push_back(
                {volume.name, name + "'s storage is more than " + std::to_string(level) + " % used"});
    }

    const Context& context_;
    World& world_;
    MachineNotes notes_;
    ConfigScan scan_;
    std::vector<FixedVolume> fixed_;
    std::vector<RemovableVolume> removable_;
    MachineStatus status_;
};

}  // namespace

std::string StorageWord(StorageState state) {
    static constexpr const char* kWords[] = {"none",    "making",   "ready",     "full",   "map-damaged",
                                             "missing", "not-held", "too-large", "unsound"};
    return kWords[static_cast<std::size_t>(state)];
}

std::optional<std::uint64_t> VolumeStatus::SecondsLeft() const {
    if (!bytesPerSecond || *bytesPerSecond <= 0) return std::nullopt;
    return room.usable / static_cast<std::uint64_t>(*bytesPerSecond);
}

bool VolumeStatus::IsShort() const {
    const bool isReady = removable || storage == StorageState::Ready;
    if (!next.isProtected) return IsStorageBad();
    return !isThere || !isProtected || !trouble.empty() || !isReady;
}

bool MachineStatus::IsAsBooted() const {
    return std::all_of(volumes.begin(), volumes.end(),
                       [](const VolumeStatus& volume) { return volume.trouble.empty(); });
}

bool MachineStatus::IsAsConfigured() const {
    return std::none_of(volumes.begin(), volumes.end(),
                        [](const VolumeStatus& volume) { return volume.IsShort(); });
}

MachineStatus QueryStatus(const Context& context) {
    return Gathering(context).Run();
}

}  // namespace ctl
