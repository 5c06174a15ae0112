// The status for programs. What stands here is documented in docs/json.md, and stays.
#include <nlohmann/json.hpp>
#include "tool/kvrctl/status_model.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kVersion = 1;

template <class Value>
Json OrNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json TextOrNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

Json NextJson(const VolumeStatus& volume, const Clock& clock) {
    static constexpr const char* kFates[] = {"dropped", "kept", "merged"};
    static constexpr const char* kActions[] = {"none", "discard", "merge"};
    const BootPlan& next = volume.next;
    Json json = {{"protected", next.isProtected}};
    if (volume.removable) {
        json["hidden"] = next.access == 2;
        return json;
    }
    json["mode"] = next.isProtected ? Json(next.keeps ? "keep" : "discard") : Json(nullptr);
    json["changes"] = next.isProtected ? kFates[static_cast<std::size_t>(next.fate)] : "none";
    json["pending"] = kActions[next.action < 3 ? next.action : 0];
    json["until"] = TextOrNull(next.until.empty() ? "" : IsoDate(next.until, clock));
    json["untilIsOver"] = next.untilIsOver;
    return json;
}

Json SwapJson(const VolumeStatus& volume) {
    return {{"status", StorageWord(volume.storage)},
            {"totalBytes", volume.room.total},
            {"usedBytes", volume.room.used},
            {"freeBytes", volume.room.total - volume.room.used},
            {"usableBytes", volume.room.usable},
            {"usedPercent", volume.room.percent},
            {"bytesPerSecond", OrNull(volume.bytesPerSecond)},
            {"secondsLeft", OrNull(volume.SecondsLeft())}};
}

Json VolumeJson(const VolumeStatus& volume, const Clock& clock) {
    Json json = {{"name", ToUtf8(volume.name)},
                 {"kind", volume.removable ? "removable" : "fixed"},
                 {"present", volume.isThere},
                 {"protected", volume.isProtected},
                 {"hidden", volume.isHidden},
                 {"trouble", TextOrNull(volume.trouble)},
                 {"nextBoot", NextJson(volume, clock)},
                 {"asConfigured", !volume.IsShort()},
                 {"bytes", volume.bytes == 0 ? Json(nullptr) : Json(volume.bytes)},
                 {"inUseBy", TextOrNull(volume.clients)}};
    if (!volume.removable) json["swap"] = SwapJson(volume);
    return json;
}

Json NameOrNull(const std::u16string& name) {
    return TextOrNull(ToUtf8(name));
}

}  // namespace

Json StatusJson(const MachineStatus& status) {
    Json volumes = Json::array(), warnings = Json::array(), deeds = Json::array();
    for (const VolumeStatus& volume : status.volumes) volumes.push_back(VolumeJson(volume, status.clock));
    for (const Warning& warning : status.warnings)
        warnings.push_back({{"volume", NameOrNull(warning.volume)}, {"text", warning.text}});
    for (const MachineNotes::BootDeed& deed : status.deeds)
        deeds.push_back({{"volume", ToUtf8(deed.volume)},
                         {"did", deed.did},
                         {"bytes", deed.bytes},
                         {"ranges", deed.ranges},
                         {"text", deed.text}});
    return {{"version", kVersion},
            {"time", IsoTime(status.time, status.clock)},
            {"machine", status.machine},
            {"protection", {{"now", status.enabled}, {"nextBoot", status.enabledNext}}},
            {"hardening", HardeningJson(status.hardening)},
            {"asConfigured", status.IsAsConfigured()},
            {"warnings", warnings},
            {"lastBoot", deeds},
            {"volumes", volumes}};
}

}  // namespace ctl
