// What `status` tells: gathered once, shown as text (status_text.cpp), JSON (status_json.cpp) or OpenMetrics
// (status_metrics.cpp).
#pragma once
#include <ctime>
#include <optional>
#include <string>
#include <vector>
#include "client/storage_room.h"
#include "tool/kvrctl/boot_plan.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/hardening.h"

namespace ctl {

enum class StorageState { None, Making, Ready, Full, MapDamaged, Missing, NotHeld, TooLarge, Unsound };

// The word for programs: "none", "map-damaged".
std::string StorageWord(StorageState state);

struct VolumeStatus {
    std::u16string name;
    bool removable = false;
    bool isThere = true;  // false: only the configuration knows it
    bool isProtected = false;
    bool isHidden = false;
    BootPlan next;
    std::string trouble;  // why it is to be protected and is not quite: a sentence without its name
    // Of a fixed volume:
    StorageState storage = StorageState::None;
    std::string fault;  // what is wrong with it, when it is Unsound: a sentence without the volume's name
    StorageRoom room;
    std::optional<std::int64_t> bytesPerSecond;  // at which it fills
    // What the machine tells of it; 0 and empty where it tells nothing.
    std::uint64_t bytes = 0;
    std::string clients;

    // The seconds until it is full; nothing while it does not fill, or nobody knows.
    std::optional<std::uint64_t> SecondsLeft() const;
    // It has storage that no boot will use.
    bool IsStorageBad() const { return storage >= StorageState::MapDamaged; }
    // Not as the configuration, as it is stored now, wants it, or with bad storage.
    bool IsShort() const;
};

struct Warning {
    std::u16string volume;  // empty: the machine's
    std::string text;       // a sentence without the point
};

struct MachineStatus {
    std::time_t time = 0;
    Clock clock;
    std::string machine;
    bool enabled = false;
    bool enabledNext = false;
    Hardening hardening;
    std::vector<VolumeStatus> volumes;
    std::vector<MachineNotes::BootDeed> deeds;
    std::vector<Warning> warnings;

    // Something that this boot was to protect is not, or is not quite.
    bool IsAsBooted() const;
    // Every volume that the stored configuration protects is protected and has room, and no storage is bad.
    bool IsAsConfigured() const;
};

// Throws Failure.
MachineStatus QueryStatus(const Context& context);

// ---- shown ----
// Lines of at most 80 characters.
std::string StatusText(const MachineStatus& status, bool colour);
nlohmann::ordered_json StatusJson(const MachineStatus& status);
std::string StatusMetrics(const MachineStatus& status);

}  // namespace ctl
