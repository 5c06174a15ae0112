// What a boot did with the volumes' changes. Told by what the saved maps on the disks held before it and hold
// behind it and, for a merge, by what the volumes hold; what was ordered only says what to expect.
#pragma once
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>
#include "client/control_client.h"
#include "machine/boot/machine.h"
#include "nbd/saved_changes.h"

namespace nbd {

struct BootDeed {
    std::string volume;    // "HarddiskVolume2"
    const char* did;       // "nothing", "dropped", "merged", "kept", "lost"
    std::uint64_t bytes;   // of the changes
    std::uint64_t ranges;  // ... and in how many pieces of the volume they lay
    std::string text;      // a sentence without the point
    bool isAsOrdered;      // false: it is to be warned of
};

class BootDeeds {
public:
    // While the machine is off: notes what the served disks hold. `registry` is the machine's, `disks` their
    // number, `most` the highest number of a volume.
    void LookBefore(machine::Machine& machine, std::size_t disks, unsigned most);
    // A message of the driver, from any thread: among them is what it took from the configuration.
    void NoteMessage(std::string_view message);
    // When the boot is up and before anybody may write. `report`: the driver's.
    std::vector<BootDeed> Tell(const std::vector<ctl::FixedVolume>& report);

private:
    struct Before {
        PlaceOnDisk place;
        std::vector<std::uint8_t> location;
        SavedChanges changes;
    };
    static constexpr int kUnprotected = -1, kKeep = 0, kDiscard = 1, kMerge = 2;
    struct Order {
        int action = kKeep;
        std::string notMerged;  // why it was not
    };
    struct Teller {
        const std::string& name;
        const Before& before;
        const ctl::FixedVolume& volume;
        int action;
        std::string notMerged, amount;

        BootDeed Tell(const char* did, const std::string& text, bool asOrdered) const;
        BootDeed Kept() const;
        BootDeed Gone() const;
    };

    void LookAt(machine::Machine& machine, unsigned number, const PlaceOnDisk& place);
    BootDeed TellOne(const std::string& name, const Before& before, const ctl::FixedVolume& volume) const;

    std::map<std::string, Before> before_;  // by the last part of the volume's name
    mutable std::mutex lock_;               // guards orders_
    std::map<std::string, Order> orders_;   // of the volumes that this boot's configuration protects
};

}  // namespace nbd
