// Pictures of a volume with its saved map, from its first sector to its last.
#pragma once
#include <string>
#include <vector>
#include "tool/kvrctl/saved_map.h"

namespace ctl {

// What lies in one cell of the picture. Where several do, the first of this list shows.
enum class Cell {
    Redirected,  // half of it or more
    SomeRedirected,
    SwapUsed,
    SwapFree,
    Untouched,
};

// The volume in `count` equal parts, `count` > 0.
std::vector<Cell> MapCells(const SavedMap& map, std::size_t count);

// Lines of `width` characters, with a legend below.
std::string MapText(const SavedMap& map, unsigned width, bool colour);
// A whole document, with the volume's offsets beside it; `title` and `note` are text.
std::string MapSvg(const SavedMap& map, const std::string& title, const std::string& note = {});

}  // namespace ctl
