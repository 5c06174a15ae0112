// swap make, remove, stop.
#include <algorithm>
#include <nlohmann/json.hpp>
#include "tool/kvrctl/client.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/failure.h"
#include "tool/kvrctl/size.h"
#include "tool/kvrctl/swap_plan.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

constexpr std::chrono::milliseconds kPoll{200};
constexpr unsigned kBarWidth = 40;

FixedVolume StatusOf(Client& client, const std::u16string& name) {
    for (const FixedVolume& volume : client.FixedVolumes())
        if (EqualIgnoringCase(volume.name, name)) return volume;
    throw Failure(ToUtf8(name) + " is gone", kExitFailed);
}

// The status, or nothing while another program holds the device.
std::optional<FixedVolume> Poll(const Context& context, const std::u16string& name) {
    try {
        Client client(context.world, context.terminal, Access::Read);
        return StatusOf(client, name);
    } catch (const Failure& failure) {
        if (failure.ExitCode() != kExitBusy) throw;
        return std::nullopt;
    }
}

class Progress {
public:
    Progress(const Context& context, std::uint64_t size) : context_(context), size_(size) {}

    void Show(std::uint64_t done) {
        if (context_.json || !context_.terminal.isTerminal) return;
        const unsigned width = std::min(kBarWidth, context_.terminal.width / 2);
        context_.terminal.out << "\r\033[K[" << Bar(done, size_, width) << "] " << PercentText(done, size_)
                              << " of " << SizeText(size_) << std::flush;
        shown_ = true;
    }
    void End() {
        if (shown_) context_.terminal.out << "\r\033[K" << std::flush;
        shown_ = false;
    }

private:
    const Context& context_;
    std::uint64_t size_;
    bool shown_ = false;
};

// What is there when no thread works any more. The location of its map is stored last, so a volume with one has
// whole storage.
struct Outcome {
    std::uint64_t bytes;
    bool complete;
};

Outcome OutcomeOf(const Context& context, const std::u16string& name, const FixedVolume& status) {
    const auto location = context.world.ReadRegistry(name);
    return {static_cast<std::uint64_t>(std::max<std::int64_t>(status.swapTotal, 0)),
            location && !location->empty()};
}

// Until the thread has ended. Nothing when the user asked for the end.
std::optional<FixedVolume> Follow(const Context& context, const std::u16string& name, std::uint64_t size) {
    Progress progress(context, size);
    for (;;) {
        const std::optional<FixedVolume> status = Poll(context, name);
        if (status && status->swapStatus != kSwapProvisioning) {
            progress.End();
            return status;
        }
        if (status) progress.Show(static_cast<std::uint64_t>(std::max<std::int64_t>(status->swapTotal, 0)));
        if (!context.terminal.Pause(kPoll)) {
            progress.End();
            return std::nullopt;
        }
    }
}

void TellMade(const Context& context, const std::u16string& name, std::uint64_t bytes) {
    if (context.json) {
        const nlohmann::ordered_json json = {
            {"volume", ToUtf8(name)}, {"swapBytes", bytes}, {"complete", true}};
        context.terminal.out << json.dump(2) << "\n";
        return;
    }
    context.terminal.out << "Made " << SizeText(bytes) << " of swap storage on " << ShortName(name)
                         << ". A protected volume uses it from " << context.world.NextBoot() << " on.\n";
}

int EndMade(const Context& context, const std::u16string& name, const FixedVolume& status, std::uint64_t size) {
    const Outcome outcome = OutcomeOf(context, name, status);
    if (!outcome.complete)
        throw Failure("the storage was not finished: " + SizeText(outcome.bytes) + " of " + SizeText(size) +
                      " were made, and the volume will not use them; 'kvrctl swap remove " + ShortName(name) +
                      "' removes them");
    if (outcome.bytes < size)
        throw Failure("the machine ran short of memory: the storage has " + SizeText(outcome.bytes) +
                      " instead of " + SizeText(size) + ", and is used at that size");
    TellMade(context, name, outcome.bytes);
    return kExitOk;
}

// The driver removes what a stopped thread made; one that had just finished leaves whole storage.
int EndStopped(const Context& context, const std::u16string& name) {
    Client client(context.world, context.terminal, Access::ReadWrite);
    client.StopSwap();
    const Outcome outcome = OutcomeOf(context, name, StatusOf(client, name));
    context.terminal.err << (outcome.complete ? "kvrctl: it was finished already; the storage stays\n"
                                              : "kvrctl: stopped; what was made is removed again\n");
    return kExitStopped;
}

KnownVolume Resolve(const Context& context, const std::string& words) {
    Client client(context.world, context.terminal, Access::Read);
    return FindVolume(KnownVolumes(client), words);
}

}  // namespace

int SwapMake(const Context& context, const SwapMakeOptions& options) {
    const auto size = static_cast<std::uint64_t>(ParseSize(options.size));
    const KnownVolume volume = Resolve(context, options.volume);
    const SwapPlan plan = PlanSwap(context, volume, size);
    if (!options.noWait) context.terminal.CatchInterrupt();
    Client(context.world, context.terminal, Access::ReadWrite)
        .AllocateSwap(volume.name, static_cast<std::int64_t>(size));
    if (!context.json)
        context.terminal.out << "Making " << SizeText(plan.swapBytes) << " of swap storage on "
                             << ShortName(volume.name)
                             << (plan.replacedBytes ? ", in place of " + SizeText(plan.replacedBytes) : "")
                             << ".\n"
                             << std::flush;
    if (options.noWait) return kExitOk;
    const std::optional<FixedVolume> status = Follow(context, volume.name, plan.swapBytes);
    return status ? EndMade(context, volume.name, *status, plan.swapBytes) : EndStopped(context, volume.name);
}

int SwapRemove(const Context& context, const std::string& words) {
    const KnownVolume volume = Resolve(context, words);
    RequireChangeable(context, volume);
    Client client(context.world, context.terminal, Access::ReadWrite);
    client.RemoveSwap(volume.name);
    if (context.world.ReadRegistry(volume.name))
        throw Failure("the storage of " + ToUtf8(volume.name) + " was not removed");
    if (!context.json)
        context.terminal.out << "Removed the swap storage of " << ShortName(volume.name) << ".\n";
    return kExitOk;
}

int SwapStop(const Context& context) {
    Client client(context.world, context.terminal, Access::ReadWrite);
    const std::vector<FixedVolume> volumes = client.FixedVolumes();
    const bool runs = std::any_of(volumes.begin(), volumes.end(),
                                  [](const FixedVolume& v) { return v.swapStatus == kSwapProvisioning; });
    client.StopSwap();
    context.terminal.out << (runs ? "Stopped.\n" : "No storage was being made or removed.\n");
    return kExitOk;
}

}  // namespace ctl
