#include "tool/kvrctl/storage_check.h"
#include "tool/kvrctl/saved_map.h"
#include "tool/kvrctl/volumes.h"
#include "tool/text.h"

namespace ctl {
namespace {

// Do the files still have the space that the driver takes for theirs? Who deletes or moves them gives it to
// others.
std::string LossOfFiles(const Context& context, const SavedMap& map, const std::u16string& volume) {
    const std::string gone = "has lost its storage files: ";
    if (const std::uint64_t sectors = OverwrittenSectors(map); sectors != 0)
        return gone + SizeText(sectors * map.sectorBytes) + " of their space hold changes of other files";
    const StorageFiles files = context.world.FilesOfStorage(volume);
    if (files.look == StorageFiles::Look::Missing) return gone + "kvr.SWP or kvr.MAP was deleted or renamed";
    if (files.look == StorageFiles::Look::Unknown) return {};
    std::vector<SectorRange> ranges;
    for (const StorageFiles::Run& run : files.runs)
        ranges.push_back({run.offset / map.sectorBytes, run.length / map.sectorBytes});
    const std::uint64_t sectors = SectorsOutside(map, std::move(ranges));
    return sectors == 0 ? std::string() : gone + SizeText(sectors * map.sectorBytes) + " lie elsewhere now";
}

// The location of its map is stored last: storage without one was not finished. Storage that this boot has not
// loaded, for want of a configuration, is there all the same.
std::string FileFault(const Context& context, const FixedVolume& volume) {
    const std::string anew = "; 'kvrctl swap make " + ShortName(volume.name) + " SIZE' makes it";
    const auto location = context.world.ReadRegistry(volume.name);
    if (!location || location->empty())
        return volume.swapTotal > 0 ? "has swap storage that was never finished" + anew + " anew"
                                    : "has no swap storage" + anew;
    const auto total = static_cast<std::uint64_t>(volume.swapTotal);
    if (volume.swapTotal > 0 && total <= context.world.StorageReserve())
        return "has " + SizeText(total) + " of swap storage, and every write fails in the last " +
               SizeText(context.world.StorageReserve()) + anew + " larger";
    try {
        return LossOfFiles(context, ReadWholeMap(context.world, context.terminal, volume.name), volume.name);
    } catch (const DamagedMap& damage) {
        return "has damaged swap storage (" + std::string(damage.what()) + ")" + anew + " anew";
    }
}

}  // namespace

std::string StorageFault(const Context& context, const FixedVolume& volume, bool keeps) {
    switch (volume.swapStatus) {
        case kSwapProvisioning:
            return "has storage that is just being made or removed, or another volume has";
        case kSwapMapBad:
        case kSwapNoLocation:
        case kSwapNotHeld:
            return "has no sound swap storage (" + StorageText(volume.swapStatus) + ")";
        case kSwapVolumeTooLarge:
            if (keeps) return "is too large a volume to keep its changes: only --at-boot discard protects it";
            break;
        default:
            break;
    }
    return FileFault(context, volume);
}

}  // namespace ctl
