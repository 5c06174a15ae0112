#include "tool/kvrctl/swap_plan.h"
#include <algorithm>
#include "tool/kvrctl/failure.h"
#include "tool/kvrctl/size.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

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

FixedVolume StatusOf(const Context& context, const KnownVolume& volume) {
    Client client(context.world, context.terminal, Access::Read);
    for (const FixedVolume& status : client.FixedVolumes())
        if (EqualIgnoringCase(status.name, volume.name)) return status;
    throw Failure(ToUtf8(volume.name) + " is removable; swap storage lies on fixed volumes only");
}

}  // namespace

FixedVolume RequireChangeable(const Context& context, const KnownVolume& volume) {
    const FixedVolume status = StatusOf(context, volume);
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

SwapPlan PlanSwap(const Context& context, const KnownVolume& volume, std::uint64_t size) {
    const FixedVolume status = RequireChangeable(context, volume);
    const std::string name = ToUtf8(volume.name);
    const auto facts = context.world.Facts(volume.name);
    const std::uint64_t sector = facts && facts->sectorBytes != 0 ? facts->sectorBytes : 512;
    const auto replaced = static_cast<std::uint64_t>(std::max<std::int64_t>(status.swapTotal, 0));
    if (size > kMostSectors * sector - kBlockSectors * sector)
        throw Failure("a volume's storage has at most " + SizeText(kMostSectors * sector));
    const SwapPlan plan{WholeBlocks(size, kBlockSectors * sector), replaced};
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

}  // namespace ctl
