// map.
#include <nlohmann/json.hpp>
#include "client/control_client.h"
#include "tool/kvrctl/commands.h"
#include "client/failure.h"
#include "tool/kvrctl/folded.h"
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/date.h"
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

Json MapJson(const SavedMap& map, const MapSummary& summary, const std::u16string& volume, std::uint64_t now) {
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
            {"redirectedBytesNow", now},
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

// When it was looked, by the machine's clock.
std::string Looked(const Context& context) {
    return IsoTime(std::time(nullptr), ClockOf(context.world));
}

// The driver saves its map when it sees fit, and nothing but a shutdown makes it: what can be told is how much
// it has redirected meanwhile.
std::string SinceText(const SavedMap& map, const MapSummary& summary, std::uint64_t now) {
    const std::uint64_t saved = summary.redirectedSectors * map.sectorBytes;
    if (now == saved) return "as much is redirected now";
    return now > saved ? SizeText(now - saved) + " that were redirected since are not shown"
                       : SizeText(saved - now) + " that it shows are redirected no longer";
}

}  // namespace

int ShowMap(const Context& context, const MapOptions& options) {
    std::u16string volume;
    std::uint64_t now = 0;  // bytes that the driver has redirected
    {
        Client client = context.Open(Access::Read);
        volume = FindVolume(KnownVolumes(client), options.volume).name;
        for (const FixedVolume& told : client.FixedVolumes())
            if (told.name == volume) now = static_cast<std::uint64_t>(std::max<std::int64_t>(told.swapUsed, 0));
    }
    const SavedMap map = ReadWholeMap(context.world, context.terminal, volume);
    const MapSummary summary = Summarize(map);
    std::ostream& out = context.terminal.out;
    if (!options.svg.empty())
        WriteFile(options.svg, MapSvg(map, ShortName(volume) + " of " + context.world.Name(), Looked(context)));
    if (context.json) {
        out << MapJson(map, summary, volume, now).dump(2) << "\n";
        return kExitOk;
    }
    out << Folded(ShortName(volume) + " of " + context.world.Name() + ", " +
                      SizeText(map.volumeSectors * map.sectorBytes) + ", " + Looked(context) +
                      ", as the driver saved its map last; " + SinceText(map, summary, now) + ".",
                  2)
        << MapText(map, std::min(context.terminal.width, 120u), context.terminal.colour)
        << SummaryText(map, summary);
    return kExitOk;
}

}  // namespace ctl
