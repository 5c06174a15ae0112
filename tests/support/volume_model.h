// What a protected volume must hold, sector by sector: a plain array beside the real thing. A sector's content
// is a 64-bit stamp that every 8 bytes of it derive from, so that a sector in the wrong place, of the wrong
// write or torn in the middle is told apart.
#pragma once
#include <cstdint>
#include <cstring>
#include <vector>

namespace support {

enum class NextBoot { Discard, Keep, Merge };

inline void FillSector(void* to, std::uint32_t sectorSize, std::uint64_t stamp) {
    auto* words = static_cast<std::uint8_t*>(to);
    for (std::uint32_t i = 0; i < sectorSize; i += 8) {
        const std::uint64_t word = stamp == 0 ? 0 : stamp * 0x9E3779B97F4A7C15ull + i;
        std::memcpy(words + i, &word, 8);
    }
}

// The stamp of a region's sector before anything was written there.
inline std::uint64_t FixedStamp(std::uint64_t sector) {
    return 5'000'000 + sector;
}

inline bool SectorHolds(const void* data, std::uint32_t sectorSize, std::uint64_t stamp) {
    std::vector<std::uint8_t> expected(sectorSize);
    FillSector(expected.data(), sectorSize, stamp);
    return std::memcmp(data, expected.data(), sectorSize) == 0;
}

class VolumeModel {
public:
    VolumeModel(std::size_t sectors, std::uint32_t sectorSize)
        : sectorSize_(sectorSize), fixed_(sectors, 0), swapped_(sectors, 0), state_(sectors) {}

    std::size_t Sectors() const { return fixed_.size(); }
    std::uint32_t SectorSize() const { return sectorSize_; }

    // What a read must return, and what the volume's own sector must hold.
    std::uint64_t View(std::size_t s) const { return state_[s].redirected ? swapped_[s] : fixed_[s]; }
    std::uint64_t Fixed(std::size_t s) const { return fixed_[s]; }
    std::uint64_t RedirectedBytes() const { return Count(&State::redirected) * sectorSize_; }
    // What will still be redirected when the saved map is loaded.
    std::uint64_t SavedBytes() const { return Count(&State::saved) * sectorSize_; }

    // A write that succeeded. The range's first redirection decides whether it outlives the boot.
    void Write(std::size_t s, std::uint64_t stamp, bool isVolatile) {
        if (!state_[s].redirected) state_[s].isVolatile = isVolatile;
        state_[s].redirected = true;
        swapped_[s] = stamp;
    }
    void SaveMap() {
        for (State& s : state_) s.saved = s.redirected && !s.isVolatile;
    }
    // The next boot loads what was saved and then acts.
    void Boot(NextBoot action) {
        for (std::size_t s = 0; s < state_.size(); ++s) {
            const bool kept = state_[s].saved && action != NextBoot::Discard;
            if (kept && action == NextBoot::Merge) fixed_[s] = swapped_[s];
            const bool stays = kept && action == NextBoot::Keep;
            state_[s] = {stays, false, stays};
        }
    }

private:
    struct State {
        bool redirected = false;
        bool isVolatile = false;
        bool saved = false;
    };
    std::uint64_t Count(bool State::*field) const {
        std::uint64_t n = 0;
        for (const State& s : state_) n += s.*field;
        return n;
    }

    std::uint32_t sectorSize_;
    std::vector<std::uint64_t> fixed_;
    std::vector<std::uint64_t> swapped_;
    std::vector<State> state_;
};

}  // namespace support
