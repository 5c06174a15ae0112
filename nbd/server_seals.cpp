// Which volumes a boot merged, so that their seals go along.
#include "client/failure.h"
#include "client/own_driver.h"
#include "nbd/configured_volumes.h"
#include "nbd/server.h"

namespace nbd {

std::set<unsigned> Server::NumbersOf(const std::vector<std::u16string>& names) {
    std::set<unsigned> numbers;
    for (const std::u16string& name : names)
        if (const machine::Volume* volume = machine_->VolumeNamed(name))
            numbers.insert(volume->device->Number());
    return numbers;
}

// Asked before the first write to the system disk, with which the driver notes that the merges are done.
std::set<unsigned> Server::MergesDue() {
    try {
        ctl::Client driver(std::make_unique<ctl::OwnDriver>(GENERIC_READ));
        return NumbersOf(VolumesToMerge(driver.GetConfig()));
    } catch (const ctl::Failure&) {
        return {};  // what the driver does not say fails the boot a moment later
    }
}

// A merge leaves nothing redirected; one that could not be, for want of room, leaves everything.
void Server::TakeSealsAlong(const std::set<unsigned>& due) {
    std::set<unsigned> merged, protectedNow;
    try {
        ctl::Client driver(std::make_unique<ctl::OwnDriver>(GENERIC_READ));
        for (const ctl::FixedVolume& volume : driver.FixedVolumes()) {
            const std::set<unsigned> number = NumbersOf({volume.name});
            if (number.empty() || volume.state == 0) continue;
            protectedNow.merge(NumbersOf({volume.name}));
            if (volume.swapUsed == 0 && due.contains(*number.begin())) merged.insert(*number.begin());
        }
    } catch (const ctl::Failure& failure) {
        log_.Line(std::string("server: the seals are not renewed: ") + failure.what());
    }
    seals_.BootIsUp(merged, protectedNow);
}

}  // namespace nbd
