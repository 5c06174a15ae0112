#include "nbd/storage_watch.h"
#include "client/size_text.h"
#include "client/storage_room.h"

namespace nbd {
namespace {

std::string LastPart(const std::u16string& name) {
    std::string text;
    for (const char16_t c : name.substr(name.rfind(u'\\') + 1)) text += c < 0x7F ? static_cast<char>(c) : '?';
    return text;
}

std::string LevelText(const std::u16string& name, unsigned level, const ctl::StorageRoom& room) {
    if (level == ctl::kFullPercent) return LastPart(name) + " is FULL: writes find no room";
    return LastPart(name) + "'s storage is more than " + std::to_string(level) + " % used, " +
           ctl::SizeText(room.usable) + " are left";
}

}  // namespace

void StorageWatch::Begin() {
    const std::lock_guard hold(lock_);
    volumes_.clear();
}

std::vector<std::string> StorageWatch::Look(Clock::time_point now,
                                            const std::vector<ctl::FixedVolume>& report) {
    std::vector<std::string> lines;
    const std::lock_guard hold(lock_);
    for (const ctl::FixedVolume& volume : report) {
        if (volume.state == 0 || volume.swapTotal <= 0) continue;
        Watched& watched = volumes_[volume.name];
        std::deque<Sample>& samples = watched.samples;
        // What became less was given up: how it filled before says nothing any more.
        if (!samples.empty() && volume.swapUsed < samples.back().used) samples.clear();
        samples.push_back({now, volume.swapUsed});
        while (samples.front().time + kMost < now) samples.pop_front();
        const ctl::StorageRoom room = ctl::RoomOf(volume, kNoSpaceLimit);
        const unsigned level = ctl::LevelOf(room);
        if (level > watched.level) lines.push_back(LevelText(volume.name, level, room));
        watched.level = level;
    }
    return lines;
}

std::map<std::u16string, std::int64_t> StorageWatch::BytesPerSecond() const {
    std::map<std::u16string, std::int64_t> rates;
    const std::lock_guard hold(lock_);
    for (const auto& [name, watched] : volumes_) {
        const Sample &first = watched.samples.front(), &last = watched.samples.back();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(last.time - first.time);
        if (seconds >= kLeast) rates[name] = (last.used - first.used) / seconds.count();
    }
    return rates;
}

}  // namespace nbd
