// The driver's own files on a volume: outside the fixed state, whatever stands in them.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace inspect {

// Whether a path, as FileTable::PathOf has it, names one, in any case of its letters: the storage's files and
// its map in the root, the configuration of a system volume.
inline bool IsOwnFile(const std::string& path) {
    std::string folded = path;
    for (char& c : folded) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    constexpr std::string_view kStorage = "/kvr.swp";
    if (folded == "/kvr.map" || folded == kStorage || folded == "/windows/system32/drivers/kvr.cfg")
        return true;
    return folded.size() == kStorage.size() + 3 && folded.starts_with("/kvr.swp.");
}

// All that there may be, to be looked up, as the driver spells them: names on ext are told apart by their case.
inline std::vector<std::string> OwnFiles() {
    std::vector<std::string> paths = {"/kvr.MAP", "/kvr.SWP", "/Windows/system32/drivers/kvr.cfg"};
    for (int number = 1; number <= 99; ++number)
        paths.push_back(std::string("/kvr.SWP.") + static_cast<char>('0' + number / 10) +
                        static_cast<char>('0' + number % 10));
    return paths;
}

}  // namespace inspect
