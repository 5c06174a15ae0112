// The status as OpenMetrics text, for a collector that reads files.
#include "tool/kvrctl/status_model.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c == '\n' ? "\\n" : std::string(1, c);
    }
    return escaped;
}

// Families one after the other, each with its samples.
class Metrics {
public:
    void Family(const std::string& name, const char* unit, const char* help) {
        name_ = name;
        text_ += "# TYPE " + name + " gauge\n";
        if (*unit) text_ += "# UNIT " + name + " " + unit + "\n";
        text_ += "# HELP " + name + " " + help + "\n";
    }
    void Sample(std::uint64_t value, const std::string& labels = {}) {
        text_ += name_ + (labels.empty() ? "" : "{" + labels + "}") + " " + std::to_string(value) + "\n";
    }
    std::string End() { return text_ + "# EOF\n"; }

private:
    std::string text_, name_;
};

std::string Label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + Escaped(value) + "\"";
}

using Value = std::optional<std::uint64_t> (*)(const VolumeStatus&);

const struct {
    const char* name;
    const char* unit;
    const char* help;
    Value value;
} kOfVolumes[] = {
    {"kvr_volume_protected", "", "1: writes to the volume do not reach it.",
     [](const VolumeStatus& v) { return std::optional<std::uint64_t>(v.isProtected); }},
    {"kvr_volume_protected_next_boot", "", "1: the configuration protects the volume from the next boot on.",
     [](const VolumeStatus& v) { return std::optional<std::uint64_t>(v.next.isProtected); }},
    {"kvr_volume_as_configured", "",
     "0: it should be protected and is not, or has no room or no sound storage.",
     [](const VolumeStatus& v) { return std::optional<std::uint64_t>(!v.IsShort()); }},
    {"kvr_storage_size_bytes", "bytes", "Size of the volume's storage.",
     [](const VolumeStatus& v) { return v.removable ? std::nullopt : std::optional(v.room.total); }},
    {"kvr_storage_used_bytes", "bytes", "What changes take of it.",
     [](const VolumeStatus& v) { return v.removable ? std::nullopt : std::optional(v.room.used); }},
    {"kvr_storage_usable_bytes", "bytes", "What is left for writes.",
     [](const VolumeStatus& v) { return v.removable ? std::nullopt : std::optional(v.room.usable); }},
    {"kvr_storage_left_seconds", "seconds",
     "Until it is full at the present rate; absent when it does not fill.",
     [](const VolumeStatus& v) { return v.SecondsLeft(); }},
};

}  // namespace

std::string StatusMetrics(const MachineStatus& status) {
    Metrics metrics;
    const std::string machine = Label("machine", status.machine);
    metrics.Family("kvr_protection_enabled", "", "1: protection as a whole is on.");
    metrics.Sample(status.enabled, machine);
    metrics.Family("kvr_as_configured", "", "What kvrctl status --check says: 1 for exit code 0.");
    metrics.Sample(status.IsAsConfigured(), machine);
    metrics.Family("kvr_warnings", "", "How many warnings there are.");
    metrics.Sample(status.warnings.size(), machine);
    for (const auto& family : kOfVolumes) {
        metrics.Family(family.name, family.unit, family.help);
        for (const VolumeStatus& volume : status.volumes)
            if (const auto value = family.value(volume))
                metrics.Sample(*value, machine + "," + Label("volume", ShortName(volume.name)));
    }
    return metrics.End();
}

}  // namespace ctl
