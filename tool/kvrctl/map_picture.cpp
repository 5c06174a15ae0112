#include "tool/kvrctl/map_picture.h"
#include <algorithm>
#include <map>
#include "tool/text.h"

namespace ctl {
namespace {

constexpr unsigned kRows = 16;
constexpr unsigned kSvgColumns = 128, kSvgRows = 48, kSvgCell = 7, kMargin = 16, kLeft = 92, kHead = 60,
                   kFoot = 40;

struct Look {
    const char* sign;
    const char* escape;  // of the terminal
    const char* fill;
    const char* name;
};
const Look& LookOf(Cell cell) {
    static constexpr Look kLooks[] = {{"█", "\033[31m", "#c0392b", "redirected"},
                                      {"▒", "\033[33m", "#e59866", "partly redirected"},
                                      {"▓", "\033[34m", "#2e6da4", "swap in use"},
                                      {"░", "\033[36m", "#a9cce3", "swap free"},
                                      {"·", "\033[0m", "#eceff1", "untouched"}};
    return kLooks[static_cast<std::size_t>(cell)];
}
constexpr Cell kAllCells[] = {Cell::Redirected, Cell::SomeRedirected, Cell::SwapUsed, Cell::SwapFree,
                              Cell::Untouched};

// Sectors of the ranges by cell.
class Counts {
public:
    Counts(std::uint64_t sectors, std::size_t cells) : sectors_(sectors), counts_(cells, 0) {}
    void Add(std::uint64_t first, std::uint64_t length) {
        for (std::uint64_t at = first; at < first + length;) {
            const std::size_t cell = CellOf(at);
            const std::uint64_t end = std::min(first + length, std::max(FirstOf(cell + 1), at + 1));
            counts_[cell] += end - at;
            at = end;
        }
    }
    std::uint64_t In(std::size_t cell) const { return counts_[cell]; }
    std::uint64_t Sectors(std::size_t cell) const { return FirstOf(cell + 1) - FirstOf(cell); }

private:
    // Sector numbers and cell numbers are far below 2^32 each.
    std::uint64_t FirstOf(std::size_t cell) const {
        return (cell * sectors_ + counts_.size() - 1) / counts_.size();
    }
    std::size_t CellOf(std::uint64_t sector) const {
        return static_cast<std::size_t>(
            std::min<std::uint64_t>(sector * counts_.size() / sectors_, counts_.size() - 1));
    }
    std::uint64_t sectors_;
    std::vector<std::uint64_t> counts_;
};

std::string Escaped(const std::string& text) {
    static const std::map<char, std::string> kNames = {
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}};
    std::string escaped;
    for (char c : text) {
        const auto found = kNames.find(c);
        escaped += found == kNames.end() ? std::string(1, c) : found->second;
    }
    return escaped;
}

std::string Attribute(const char* name, std::uint64_t value) {
    return std::string(" ") + name + "=\"" + std::to_string(value) + "\"";
}

std::string Rectangle(std::uint64_t x, std::uint64_t y, std::uint64_t width, std::uint64_t height, Cell cell) {
    return "<rect" + Attribute("x", x) + Attribute("y", y) + Attribute("width", width) +
           Attribute("height", height) + " fill=\"" + LookOf(cell).fill + "\"/>\n";
}

std::string SvgText(std::uint64_t x, std::uint64_t y, unsigned size, const std::string& text) {
    return "<text" + Attribute("x", x) + Attribute("y", y) + Attribute("font-size", size) + ">" +
           Escaped(text) + "</text>\n";
}

// One rectangle for each row's stretch of equal cells.
std::string SvgCells(const std::vector<Cell>& cells) {
    std::string text;
    for (unsigned row = 0; row < kSvgRows; ++row) {
        for (unsigned from = 0; from < kSvgColumns;) {
            unsigned to = from;
            while (to < kSvgColumns && cells[row * kSvgColumns + to] == cells[row * kSvgColumns + from]) ++to;
            text += Rectangle(kLeft + from * kSvgCell, kHead + row * kSvgCell, (to - from) * kSvgCell, kSvgCell,
                              cells[row * kSvgColumns + from]);
            from = to;
        }
    }
    return text;
}

// Where every eighth row begins in the volume.
std::string SvgOffsets(const SavedMap& map) {
    std::string text;
    for (unsigned row = 0; row < kSvgRows; row += 8)
        text += SvgText(kMargin, kHead + row * kSvgCell + 9, 11,
                        SizeText(map.volumeSectors * row / kSvgRows * map.sectorBytes));
    return text;
}

std::string SvgLegend() {
    const unsigned y = kHead + kSvgRows * kSvgCell + 14;
    std::string text;
    unsigned x = kMargin;
    for (Cell cell : kAllCells) {
        text += Rectangle(x, y, 12, 12, cell) + SvgText(x + 18, y + 11, 12, LookOf(cell).name);
        x += 170;
    }
    return text;
}

}  // namespace

std::vector<Cell> MapCells(const SavedMap& map, std::size_t count) {
    std::vector<Cell> cells(count, Cell::Untouched);
    if (map.volumeSectors == 0) return cells;
    Counts redirected(map.volumeSectors, count), used(map.volumeSectors, count), free(map.volumeSectors, count);
    for (const RedirectedRange& range : map.redirected) {
        redirected.Add(range.volume, range.length);
        used.Add(range.swap, range.length);
    }
    for (const SectorRange& range : map.free) free.Add(range.first, range.length);
    for (std::size_t i = 0; i < count; ++i) {
        if (redirected.In(i) != 0)
            cells[i] = redirected.In(i) * 2 >= redirected.Sectors(i) ? Cell::Redirected : Cell::SomeRedirected;
        else if (used.In(i) != 0)
            cells[i] = Cell::SwapUsed;
        else if (free.In(i) != 0)
            cells[i] = Cell::SwapFree;
    }
    return cells;
}

std::string MapText(const SavedMap& map, unsigned width, bool colour) {
    const std::vector<Cell> cells = MapCells(map, std::size_t{width} * kRows);
    const auto drawn = [&](Cell cell) {
        return colour ? std::string(LookOf(cell).escape) + LookOf(cell).sign + "\033[0m" : LookOf(cell).sign;
    };
    std::string text;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        text += drawn(cells[i]);
        if ((i + 1) % width == 0) text += "\n";
    }
    for (Cell cell : kAllCells)
        text += (cell == kAllCells[0] ? "" : "   ") + drawn(cell) + " " + LookOf(cell).name;
    text += "\nOne character is " + SizeText(map.volumeSectors * map.sectorBytes / cells.size()) + ".\n";
    return text;
}

std::string MapSvg(const SavedMap& map, const std::string& title, const std::string& note) {
    const unsigned width = kLeft + kMargin + kSvgColumns * kSvgCell,
                   height = kHead + kSvgRows * kSvgCell + kFoot;
    const MapSummary summary = Summarize(map);
    const std::uint64_t swap = (summary.redirectedSectors + summary.freeSectors) * map.sectorBytes;
    const std::string line = SizeText(map.volumeSectors * map.sectorBytes) + ", " +
                             SizeText(summary.redirectedSectors * map.sectorBytes) + " redirected in " +
                             std::to_string(summary.ranges) + (summary.ranges == 1 ? " range" : " ranges") +
                             ", swap of " + SizeText(swap) + (note.empty() ? "" : ", " + note);
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"" +
           Attribute("width", width) + Attribute("height", height) + " font-family=\"sans-serif\">\n<title>" +
           Escaped(title) + "</title>\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n" +
           SvgText(kMargin, 26, 18, title) + SvgText(kMargin, 46, 12, line) + SvgOffsets(map) +
           SvgCells(MapCells(map, std::size_t{kSvgColumns} * kSvgRows)) + SvgLegend() + "</svg>\n";
}

}  // namespace ctl
