#include "tool/inject/registration.h"
#include <algorithm>
#include <cctype>
#include <set>
#include "formats/kvr_ioctl.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr char kService[] = "kvr";
constexpr char kInjected[] = "InjectedVersion";
constexpr char kListValue[] = "UpperFilters";
constexpr char kLocationEnd[] = "\\kvr.CFG";
constexpr char kVolumePrefix[] = "\\Device\\HarddiskVolume";
constexpr std::size_t kPieceBytes = 512;

struct FilterClass {
    const char* guid;
    const char* name;
};
constexpr FilterClass kClasses[] = {{"{71A27CDD-812A-11D0-BEC7-08002BE2092F}", "volumes"},
                                    {"{4D36E967-E325-11CE-BFC1-08002BE10318}", "disks"}};

std::string ClassKey(const FilterClass& filtered) {
    return std::string("Control\\Class\\") + filtered.guid;
}

bool IsOurs(const std::string& name) {
    return SameName(name, kService);
}

std::vector<std::string> FilterList(const Hive& hive, const std::string& key) {
    const auto value = hive.Get(key, kListValue);
    const auto list = ListOf(value);
    if (value && !list) throw Error("the filter list of " + key + " is no list");
    return list.value_or(std::vector<std::string>());
}

void AddFilter(Installation& windows, const FilterClass& filtered, Report& report) {
    Hive& hive = windows.System();
    const std::string key = windows.Current(ClassKey(filtered));
    if (!hive.HasKey(key)) throw Error(std::string("the hive SYSTEM has no class for ") + filtered.name);
    std::vector<std::string> list = FilterList(hive, key);
    if (std::none_of(list.begin(), list.end(), IsOurs)) {
        list.push_back(kService);
        hive.Set(key, kListValue, List(list));
    }
    report.push_back(std::string("filters of ") + filtered.name + ": " + Show(List(list)));
}

// A list that is left empty goes: Windows takes no list and an empty one for the same.
void DropFilter(Installation& windows, const std::string& set, const FilterClass& filtered, Report& report) {
    Hive& hive = windows.System();
    const std::string key = set + "\\" + ClassKey(filtered);
    std::vector<std::string> list = FilterList(hive, key);
    if (std::erase_if(list, IsOurs) == 0) return;
    if (list.empty())
        hive.Delete(key, kListValue);
    else
        hive.Set(key, kListValue, List(list));
    report.push_back(set + ", filters of " + filtered.name + ": " + Show(List(list)));
}

std::vector<std::string> ControlSets(const Hive& hive) {
    std::vector<std::string> sets = hive.Children("");
    std::erase_if(sets, [](const std::string& name) { return !SameName(name.substr(0, 10), "ControlSet"); });
    return sets;
}

// The volume of a path that lies on one: the prefix and the number behind it.
std::optional<std::string> VolumeOf(const std::string& path, const std::string& below) {
    const std::string prefix = kVolumePrefix;
    if (path.size() < prefix.size() || !SameName(path.substr(0, prefix.size()), prefix)) return {};
    std::size_t end = prefix.size();
    while (end < path.size() && std::isdigit(static_cast<unsigned char>(path[end])) != 0) ++end;
    const std::string rest = path.substr(end);
    if (end == prefix.size() || rest.size() <= below.size() || !SameName(rest.substr(0, below.size()), below))
        return {};
    return prefix + path.substr(prefix.size(), end - prefix.size());
}

// Windows notes there which programs ran, by their files' full names.
void CollectVolumes(const Hive& hive, const std::string& key, const std::string& below,
                    std::set<std::string>& found) {
    for (const std::string& user : hive.Children(key)) {
        for (const auto& [name, value] : hive.Values(std::string(key).append("\\").append(user))) {
            if (const auto volume = VolumeOf(name, below)) found.insert(*volume);
        }
    }
}

}  // namespace

void Register(Installation& windows, const std::string& version, Report& report) {
    Hive& hive = windows.System();
    const std::string service = windows.Current(std::string("Services\\") + kService);
    const std::pair<const char*, HiveValue> values[] = {
        {"DisplayName", Text("Kvr volume filter")},
        {"Description", Text("Redirects the writes of protected volumes into swap files on them")},
        {"Type", Number(1)},
        {"Start", Number(0)},
        {"ErrorControl", Number(1)},
        {"ImagePath", PathText("System32\\drivers\\kvr64.sys")},
        {"Group", Text("PnP Filter")}};
    for (const auto& [name, value] : values) hive.Set(service, name, value);
    report.push_back("service kvr in " + service);
    if (!hive.Get(kOwnKey, "Hardening")) hive.Set(kOwnKey, "Hardening", Number(1));
    hive.Set(kOwnKey, kInjected, Text(version));
    for (const FilterClass& filtered : kClasses) AddFilter(windows, filtered, report);
}

void StartAtBoot(Installation& windows, const std::string& program, Report& report) {
    Hive& hive = windows.System();
    const std::string key = windows.Current("Control\\Session Manager");
    const auto value = hive.Get(key, "BootExecute");
    auto list = ListOf(value);
    if (value && !list) throw Error("BootExecute is no list");
    if (!list) list.emplace();
    if (std::none_of(list->begin(), list->end(), [&](auto& name) { return SameName(name, program); }))
        list->push_back(program);
    hive.Set(key, "BootExecute", List(*list));
    hive.Set(windows.Current("Control\\CrashControl"), "AutoReboot", Number(1));
    report.push_back("started at boot: " + Show(List(*list)));
}

void Unregister(Installation& windows, Report& report) {
    Hive& hive = windows.System();
    const std::vector<std::string> sets = ControlSets(hive);
    for (const std::string& set : sets) {
        for (const FilterClass& filtered : kClasses) DropFilter(windows, set, filtered, report);
    }
    for (const std::string& set : sets) {
        const std::string service = set + "\\Services\\" + kService;
        if (!hive.HasKey(service)) continue;
        hive.DeleteKey(service);
        report.push_back("service kvr taken out of " + set);
    }
}

void ForgetNotes(Installation& windows) {
    windows.System().DeleteKey(kOwnKey);
}

void AddToNote(Installation& windows, const std::string& note, const std::vector<std::string>& items) {
    if (items.empty()) return;
    std::vector<std::string> all = Noted(windows, note);
    all.insert(all.end(), items.begin(), items.end());
    windows.System().Set(kOwnKey, note, List(all));
}

std::vector<std::string> Noted(Installation& windows, const std::string& note) {
    return ListOf(windows.System().Get(kOwnKey, note)).value_or(std::vector<std::string>());
}

std::optional<std::string> InjectedVersion(Installation& windows) {
    return TextOf(windows.System().Get(kOwnKey, kInjected));
}

std::optional<std::string> OwnVolumeName(Installation& windows) {
    std::set<std::string> found;
    const std::string below = "\\" + windows.Path("");
    for (const char* monitor : {"bam", "dam"}) {
        for (const char* further : {"\\UserSettings", "\\State\\UserSettings"})
            CollectVolumes(windows.System(), windows.Current(std::string("Services\\") + monitor + further),
                           below, found);
    }
    if (found.size() != 1) return {};
    return *found.begin();
}

bool HasConfigLocation(Installation& windows) {
    for (const auto& [name, value] : windows.System().Values(kOwnKey)) {
        const std::string end = kLocationEnd;
        if (name.size() > end.size() && SameName(name.substr(name.size() - end.size()), end)) return true;
    }
    return false;
}

void SetConfigLocation(Installation& windows, const std::string& volume,
                       const std::vector<std::int64_t>& offsets) {
    constexpr std::size_t kPieces = KVR_CONFIG_BYTES / kPieceBytes;
    std::vector<std::uint8_t> bytes;
    for (const std::int64_t offset : offsets) {
        if (offset <= 0) throw Error("the configuration lies at the volume's begin");
        for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<std::uint8_t>(offset >> (8 * i)));
    }
    if (offsets.size() != kPieces)
        throw Error("the configuration does not lie in " + std::to_string(kPieces) + " sectors");
    windows.System().Set(kOwnKey, volume + kLocationEnd, Binary(bytes));
}

}  // namespace tool
