// map.
#include <nlohmann/json.hpp>
#include "client/control_client.h"
#include "tool/kvrctl/commands.h"
#include "client/failure.h"
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/map_picture.h"
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

using Json = nlohmann::ordered_json;

std::string SummaryText(const SavedMap& map, const MapSummary& summary) {
    const auto size = [&](std::uint64_t sectors) { return SizeText(sectors * map.sectorBytes); };
    const std::uint64_t swap = summary.redirectedSectors + summary.freeSectors;
    std::string text =
        "Redirected: " + size(summary.redirectedSectors) + " in " + CountText(summary.ranges, "range");
    if (summary.ranges != 0)
        text += " (largest " + size(summary.largestRange) + "), their data in " +
                CountText(summary.pieces, "piece");
    text += ".\nSwap: " + size(swap) + ", " + PercentText(summary.redirectedSectors, swap) +
            " used; free are " + size(summary.freeSectors) + " in " + CountText(summary.freeRanges, "range");
    if (summary.freeRanges != 0) text += " (largest " + size(summary.largestFree) + ")";
    return text + ".\n";
}

Json MapJson(const SavedMap& map, const MapSummary& summary, const std::u16string& volume) {
    Json redirected = Json::array(), free = Json::array();
    for (const RedirectedRange& range : map.redirected)
        redirected.push_back(
            {{"volumeSector", range.volume}, {"swapSector", range.swap}, {"sectors", range.length}});
    for (const SectorRange& range : map.free)
        free.push_back({{"swapSector", range.first}, {"sectors", range.length}});
    return {{"volume", ToUtf8(volume)},
            {"sectorBytes", map.sectorBytes},
            {"sectors", map.volumeSectors},
            {"redirectedSectors", summary.redirectedSectors},
            {"freeSwapSectors", summary.freeSectors},
            {"ranges", summary.ranges},
            {"largestRange", summary.largestRange},
            {"pieces", summary.pieces},
            {"freeRanges", summary.freeRanges},
            {"largestFree", summary.largestFree},
            {"entries", summary.entries},
            {"slots", map.slots},
            {"redirected", redirected},
            {"free", free}};
}

}  // namespace

int ShowMap(const Context& context, const MapOptions& options) {
    std::u16string volume;
    {
        Client client = context.Open(Access::Read);
        volume = FindVolume(KnownVolumes(client), options.volume).name;
    }
    const SavedMap map = ReadWholeMap(context.world, context.terminal, volume);
    const MapSummary summary = Summarize(map);
    std::ostream& out = context.terminal.out;
    if (!options.svg.empty()) WriteFile(options.svg, MapSvg(map, ShortName(volume)));
    if (context.json) {
        out << MapJson(map, summary, volume).dump(2) << "\n";
        return kExitOk;
    }
    out << ShortName(volume) << ", " << SizeText(map.volumeSectors * map.sectorBytes)
        << ", as the driver last saved its map; what changed since is not shown.\n"
        << MapText(map, std::min(context.terminal.width, 120u), context.terminal.colour)
        << SummaryText(map, summary);
    return kExitOk;
}

}  // namespace ctl
