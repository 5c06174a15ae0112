// How full the volumes' storages are, over time: what is logged once when a level is reached, and how fast they
// fill.
#pragma once
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>
#include "client/control_client.h"

namespace nbd {

// Thread-safe.
class StorageWatch {
public:
    using Clock = std::chrono::steady_clock;

    // A boot begins: what was seen before is forgotten.
    void Begin();
    // Looks at the driver's report; what is to be logged, a line each: a level that was reached, upwards, since
    // the look before.
    std::vector<std::string> Look(Clock::time_point now, const std::vector<ctl::FixedVolume>& report);
    // By volume, over the last minutes; a volume that was not watched for long enough is not there.
    std::map<std::u16string, std::int64_t> BytesPerSecond() const;

    static constexpr std::chrono::seconds kLeast{10}, kMost{300};

private:
    struct Sample {
        Clock::time_point time;
        std::int64_t used;
    };
    struct Watched {
        std::deque<Sample> samples;  // the oldest first
        unsigned level = 0;
    };
    mutable std::mutex lock_;  // guards what follows
    std::map<std::u16string, Watched> volumes_;
};

}  // namespace nbd
