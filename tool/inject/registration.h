// What installing Kvr writes into a Windows' registry, as kvr.inf does it: the service, both classes' filter
// lists, the switch for the stricter rules; and where the configuration lies, as the driver itself would note
// it.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>
#include "tool/inject/installation.h"

namespace tool {

// The driver's own key, at the hive's root: \Registry\Machine\System\kvr. What is injected is noted there too,
// so that it can be taken out again.
inline constexpr char kOwnKey[] = "kvr";

// What is done, one line for each thing, for the user.
using Report = std::vector<std::string>;

// The service first, names last: what is interrupted leaves no name without a driver. Behind what stands in a
// list, once. Throws Error where the layout is not that of a Windows.
void Register(Installation& windows, const std::string& version, Report& report);
// A native program of System32 is started at every boot, before anybody logs in; a Windows that stops with a
// blue screen restarts. For a copy that proves the driver: nothing takes it out again. Throws Error.
void StartAtBoot(Installation& windows, const std::string& program, Report& report);
// Names first, then the service, from every control set.
void Unregister(Installation& windows, Report& report);
// The driver's own key goes, with what it and the injection noted there: the last step.
void ForgetNotes(Installation& windows);

// A list of what was added elsewhere, in the driver's own key, so that as much is taken out again: `items` go
// behind what earlier injections noted. Empty where nothing was.
void AddToNote(Installation& windows, const std::string& note, const std::vector<std::string>& items);
std::vector<std::string> Noted(Installation& windows, const std::string& note);

// The version of what was injected; nothing where nothing was.
std::optional<std::string> InjectedVersion(Installation& windows);

// The name that this Windows gave its own volume whenever it ran, \Device\HarddiskVolume3 for example; nothing
// where it noted none or several.
std::optional<std::string> OwnVolumeName(Installation& windows);
// The registry names sectors of a configuration.
bool HasConfigLocation(Installation& windows);
// `offsets` are those of the 16 pieces of 512 bytes on the volume of that name. Throws Error for any other
// number, and for a piece at 0, which means unknown.
void SetConfigLocation(Installation& windows, const std::string& volume,
                       const std::vector<std::int64_t>& offsets);

}  // namespace tool
