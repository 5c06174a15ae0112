// swap make, remove, stop.
#include <algorithm>
#include <nlohmann/json.hpp>
#include "client/control_client.h"
#include "tool/kvrctl/commands.h"
#include "client/failure.h"
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

constexpr std::chrono::milliseconds kPoll{200};
constexpr unsigned kBarWidth = 40;

// ---- whether it can be done, before anything starts --------------------------------------------------------

struct SwapPlan {
    FixedVolume now;
    std::uint64_t swapBytes;      // in whole blocks
    std::uint64_t replacedBytes;  // of the storage that is there and goes
};

constexpr std::int64_t kLeastBytes = 1024 * 1024;
constexpr std::uint64_t kBlockSectors = 2048;  // by which the storage files grow
constexpr std::uint64_t kMapEntryBytes = 12;   // of the map's file, for every sector of storage
constexpr std::uint64_t kMostSectors = 0xFFFFFFFF / kMapEntryBytes;

std::uint64_t WholeBlocks(std::uint64_t bytes, std::uint64_t block) {
    return (bytes / block + (bytes % block != 0)) * block;
}

// The storage and its map's file.
std::uint64_t RoomFor(std::uint64_t swapBytes, std::uint64_t sector) {
    return swapBytes + WholeBlocks(swapBytes / sector * kMapEntryBytes, sector * kBlockSectors);
}

FixedVolume StatusOf(Client client, const std::u16string& name, const char* otherwise) {
    for (const FixedVolume& volume : client.FixedVolumes())
        if (EqualIgnoringCase(volume.name, name)) return volume;
    throw Failure(ToUtf8(name) + otherwise);
}

// Throws Failure for a volume on which nothing can be made or removed now: protected, in use by a client, or
// because a thread is at work already.
FixedVolume RequireChangeable(const Context& context, const KnownVolume& volume) {
    const FixedVolume status = StatusOf(context.Open(Access::Read), volume.name,
                                        " is removable; swap storage lies on fixed volumes only");
    const std::string name = ToUtf8(volume.name);
    if (status.swapStatus == kSwapProvisioning)
        throw Failure(
            "storage is being made or removed already; wait for it, or end it with 'kvrctl swap stop'",
            kExitBusy);
    if (status.state != 0)
        throw Failure(name + " is protected, its storage is in use; 'kvrctl unprotect " +
                      ShortName(volume.name) + "', boot, and try again");
    const auto facts = context.world.Facts(volume.name);
    if (facts && !facts->clients.empty())
        throw Failure(
            name + " is in use by " + facts->clients + "; its file system is theirs until they are gone",
            kExitBusy);
    return status;
}

// In a boot that could not use its storage, this may hold what the one before kept.
void RequireNoLoss(const Context& context, const KnownVolume& volume, const FixedVolume& status, bool given) {
    if (status.swapUsed <= 0) return;
    RequireConsent(context.terminal, given,
                   "the storage of " + ShortName(volume.name) + " holds " +
                       SizeText(static_cast<std::uint64_t>(status.swapUsed)) +
                       " of changes, which would be dropped now",
                   "--drop-changes");
}

// Small numbers are most often meant in another unit, and the last of any storage is kept in reserve.
std::uint64_t RequireUseful(const Context& context, const std::string& text) {
    const std::int64_t size = ParseSize(text);
    if (size < kLeastBytes && text.find_first_not_of("0123456789") == text.npos)
        throw Failure("'" + text + "' means " + SizeText(static_cast<std::uint64_t>(size)) +
                          "; for megabytes write " + text + "M",
                      kExitUsage);
    const std::uint64_t reserve = context.world.StorageReserve();
    if (static_cast<std::uint64_t>(size) <= reserve)
        throw Failure(SizeText(static_cast<std::uint64_t>(size)) +
                          " of storage are of no use: every write fails in the last " + SizeText(reserve) +
                          " of a volume's storage, and a merge needs more than " + SizeText(kMergeSpaceLimit) +
                          " free; make it larger",
                      kExitUsage);
    return static_cast<std::uint64_t>(size);
}

// ... nor made: removable, without a file system for it, without the room.
SwapPlan PlanSwap(const Context& context, const KnownVolume& volume, std::uint64_t size) {
    const FixedVolume status = RequireChangeable(context, volume);
    const std::string name = ToUtf8(volume.name);
    const auto facts = context.world.Facts(volume.name);
    const std::uint64_t sector = facts && facts->sectorBytes != 0 ? facts->sectorBytes : 512;
    const auto replaced = static_cast<std::uint64_t>(std::max<std::int64_t>(status.swapTotal, 0));
    if (size > kMostSectors * sector - kBlockSectors * sector)
        throw Failure("a volume's storage has at most " + SizeText(kMostSectors * sector));
    const SwapPlan plan{status, WholeBlocks(size, kBlockSectors * sector), replaced};
    if (!facts) return plan;
    if (facts->removable) throw Failure(name + " is removable; swap storage lies on fixed volumes only");
    if (facts->fileSystem == FileSystemKind::None)
        throw Failure(name + " has no file system in which the machine can make the storage's files");
    const std::uint64_t room = RoomFor(plan.swapBytes, sector);
    if (facts->freeBytes && room > *facts->freeBytes + (replaced ? RoomFor(replaced, sector) : 0))
        throw Failure(name + " has " + SizeText(*facts->freeBytes) + " free; the storage and its map need " +
                      SizeText(room));
    return plan;
}

// ---- watching it -------------------------------------------------------------------------------------------

// The status, or nothing while another program holds the device or once the user asked for the end.
std::optional<FixedVolume> Poll(const Context& context, const std::u16string& name) {
    try {
        return StatusOf(context.Open(Access::Read), name, " is gone");
    } catch (const Failure& failure) {
        if (failure.ExitCode() != kExitBusy && failure.ExitCode() != kExitStopped) throw;
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

// Why it ended early, in brackets, as far as somebody knows.
std::string CauseText(const Context& context, const std::u16string& name) {
    std::string why = context.world.WhyUnfinished(name);
    const auto facts = context.world.Facts(name);
    if (why.empty() && facts && facts->freeBytes && *facts->freeBytes < kBlockSectors * facts->sectorBytes)
        why = "the volume has " + SizeText(*facts->freeBytes) + " free";
    return why.empty() ? "" : " (" + why + ")";
}

int EndMade(const Context& context, const std::u16string& name, const FixedVolume& status, std::uint64_t size) {
    const Outcome outcome = OutcomeOf(context, name, status);
    if (!outcome.complete)
        throw Failure("the storage was not finished: " + SizeText(outcome.bytes) + " of " + SizeText(size) +
                      " were made" + CauseText(context, name) +
                      "; the volume will not use them, and 'kvrctl swap remove " + ShortName(name) +
                      "' removes them");
    if (outcome.bytes < size)
        throw Failure("the machine ran short of memory: the storage has " + SizeText(outcome.bytes) +
                      " instead of " + SizeText(size) + ", and is used at that size");
    TellMade(context, name, outcome.bytes);
    return kExitOk;
}

// The driver removes what a stopped thread made; one that had just finished leaves whole storage.
int EndStopped(const Context& context, const std::u16string& name) {
    Client client = context.Open(Access::ReadWrite, Patience::Insistent);
    client.StopSwap();
    const Outcome outcome = OutcomeOf(context, name, StatusOf(std::move(client), name, " is gone"));
    context.terminal.err << (outcome.complete ? "kvrctl: it was finished already; the storage stays\n"
                                              : "kvrctl: stopped; what was made is removed again\n");
    return kExitStopped;
}

KnownVolume Resolve(const Context& context, const std::string& words) {
    Client client = context.Open(Access::Read);
    return FindVolume(KnownVolumes(client), words);
}

}  // namespace

int SwapMake(const Context& context, const SwapMakeOptions& options) {
    const std::uint64_t size = RequireUseful(context, options.size);
    const KnownVolume volume = Resolve(context, options.volume);
    RequireRoomForStorage(volume);
    const SwapPlan plan = PlanSwap(context, volume, size);
    RequireNoLoss(context, volume, plan.now, options.dropChanges);
    if (!options.noWait) context.terminal.CatchInterrupt();
    context.Open(Access::ReadWrite).AllocateSwap(volume.name, static_cast<std::int64_t>(size));
    if (!context.json)
        context.terminal.out << "Making " << SizeText(plan.swapBytes) << " of swap storage on "
                             << ShortName(volume.name)
                             << (plan.replacedBytes ? ", in place of " + SizeText(plan.replacedBytes) : "")
                             << "; " << SizeText(plan.swapBytes - context.world.StorageReserve())
                             << " of it can hold changes.\n"
                             << std::flush;
    if (options.noWait) return kExitOk;
    const std::optional<FixedVolume> status = Follow(context, volume.name, plan.swapBytes);
    return status ? EndMade(context, volume.name, *status, plan.swapBytes) : EndStopped(context, volume.name);
}

int SwapRemove(const Context& context, const EditOptions& options) {
    const KnownVolume volume = Resolve(context, options.volume);
    RequireNoLoss(context, volume, RequireChangeable(context, volume), options.dropChanges);
    Client client = context.Open(Access::ReadWrite);
    client.RemoveSwap(volume.name);
    if (context.world.ReadRegistry(volume.name))
        throw Failure("the storage of " + ToUtf8(volume.name) + " was not removed");
    if (!context.json)
        context.terminal.out << "Removed the swap storage of " << ShortName(volume.name) << ".\n";
    return kExitOk;
}

int SwapStop(const Context& context) {
    Client client = context.Open(Access::ReadWrite);
    const std::vector<FixedVolume> volumes = client.FixedVolumes();
    const bool runs = std::any_of(volumes.begin(), volumes.end(),
                                  [](const FixedVolume& v) { return v.swapStatus == kSwapProvisioning; });
    client.StopSwap();
    context.terminal.out << (runs ? "Stopped.\n" : "No storage was being made or removed.\n");
    return kExitOk;
}

}  // namespace ctl
