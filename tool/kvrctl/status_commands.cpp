// status, watch.
#include <map>
#include <nlohmann/json.hpp>
#include "client/failure.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/status_model.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

// How fast the storages fill, from one look to the next, where nobody else tells.
class OwnRates {
public:
    void Add(MachineStatus& status) {
        for (VolumeStatus& volume : status.volumes) {
            const auto [look, isFirst] = first_.try_emplace(volume.name, Look{status.time, volume.room.used});
            const std::time_t seconds = status.time - look->second.time;
            if (volume.room.used < look->second.used) look->second = {status.time, volume.room.used};
            if (isFirst || volume.bytesPerSecond || seconds < kLeastSeconds) continue;
            const auto grown = static_cast<std::int64_t>(volume.room.used - look->second.used);
            volume.bytesPerSecond = grown / seconds;
        }
    }

private:
    struct Look {
        std::time_t time;
        std::uint64_t used;
    };
    static constexpr std::time_t kLeastSeconds = 10;
    std::map<std::u16string, Look> first_;
};

// Over what stood on the screen, without clearing it first: nothing flickers.
std::string InPlace(const std::string& text) {
    std::string drawn = "\033[H";
    for (const char c : text) drawn += c == '\n' ? "\033[K\n" : std::string(1, c);
    return drawn + "\033[J";
}

void Draw(const Context& context, const MachineStatus& status) {
    std::ostream& out = context.terminal.out;
    if (context.json)
        out << StatusJson(status).dump() << "\n";
    else if (context.terminal.isTerminal)
        out << InPlace(StatusText(status, context.terminal.colour) + "\nCtrl-C ends.\n");
    else
        out << StatusText(status, false) << "\n";
    out.flush();
}

std::string WhyShort(const VolumeStatus& volume) {
    if (!volume.trouble.empty()) return volume.trouble;
    if (volume.storage == StorageState::Unsound) return volume.fault;
    if (volume.IsStorageBad()) return "has bad storage";
    if (!volume.isProtected) return "is to be protected and is not yet";
    return volume.storage == StorageState::Full ? "is FULL: writes find no room"
                                                : "has no storage that is ready";
}

int Check(const Context& context, const MachineStatus& status) {
    const bool good = status.IsAsConfigured();
    for (const VolumeStatus& volume : status.volumes) {
        if (!volume.IsShort() || context.json) continue;
        const std::string why = WhyShort(volume);
        context.terminal.out << ShortName(volume.name) << " " << why << ".\n";
    }
    if (context.json) context.terminal.out << StatusJson(status).dump(2) << "\n";
    return good ? kExitOk : kExitFailed;
}

}  // namespace

int ShowStatus(const Context& context, const StatusOptions& options) {
    const MachineStatus status = QueryStatus(context);
    if (options.check) return Check(context, status);
    if (options.openMetrics) {
        context.terminal.out << StatusMetrics(status);
        return kExitOk;  // the metrics say the rest
    }
    context.terminal.out << (context.json ? StatusJson(status).dump(2) + "\n"
                                          : StatusText(status, context.terminal.colour));
    return status.IsAsBooted() ? kExitOk : kExitFailed;
}

int Watch(const Context& context, const WatchOptions& options) {
    const std::chrono::milliseconds pause(static_cast<std::int64_t>(options.seconds * 1000));
    OwnRates rates;
    context.terminal.CatchInterrupt();
    try {
        for (unsigned shown = 1;; ++shown) {
            MachineStatus status = QueryStatus(context);
            rates.Add(status);
            Draw(context, status);
            if (shown == options.count || !context.terminal.Pause(pause)) return kExitOk;
        }
    } catch (const Failure& failure) {
        if (failure.ExitCode() != kExitStopped) throw;
        return kExitOk;  // Ctrl-C is how it ends
    }
}

}  // namespace ctl
