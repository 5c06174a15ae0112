#include "tool/kvrctl/volume_states.h"
#include <algorithm>
#include "client/failure.h"
#include "tool/kvrctl/saved_map.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

constexpr std::size_t kMostRead = 1024 * 1024;  // bytes in one request

}  // namespace

bool StateView::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    auto* to = static_cast<std::uint8_t*>(buffer);
    try {
        while (length != 0) {
            const std::size_t part = std::min(length, kMostRead);
            const Bytes bytes = (world_.*read_)(volume_, offset, static_cast<std::uint32_t>(part));
            to = std::copy(bytes.begin(), bytes.end(), to);
            offset += part, length -= part;
        }
        return true;
    } catch (const std::exception& error) {  // the libraries that read through this know no exceptions
        trouble_ = error.what();
        return false;
    }
}

VolumeStates::VolumeStates(const Context& context, const std::string& words) : world_(context.world) {
    {
        Client client = context.Open(Access::Read);
        name_ = FindVolume(KnownVolumes(client), words).name;
        for (const FixedVolume& volume : client.FixedVolumes()) {
            if (!EqualIgnoringCase(volume.name, name_)) continue;
            protected_ = volume.state != 0;
            used_ = static_cast<std::uint64_t>(volume.swapUsed);
        }
    }
    const std::optional<VolumeFacts> facts = world_.Facts(name_);
    if (!facts || facts->sectorBytes == 0) throw Failure("the machine does not describe " + ShortName(name_));
    facts_ = *facts;
    if (!protected_) return;
    boot_ = world_.BootMark();
    fixedView_ = std::make_unique<StateView>(world_, name_, facts_, &World::ReadSectors);
    presentView_ = std::make_unique<StateView>(world_, name_, facts_, &World::ReadPresent);
    fixed_ = inspect::FileTable::Open(*fixedView_);
    present_ = inspect::FileTable::Open(*presentView_);
    if (fixed_ == nullptr || present_ == nullptr)
        throw Failure(ShortName(name_) + " has no NTFS or ext file system in both of its states");
}

std::vector<inspect::Extent> VolumeStates::Redirected() {
    std::vector<inspect::Extent> extents;
    try {
        for (const RedirectedRange& range : ReadSavedMap(world_, name_).redirected)
            extents.push_back({range.volume * facts_.sectorBytes, range.length * facts_.sectorBytes});
    } catch (const Failure&) {
        return {};  // it is being written, for example; contents tell most of it as well
    }
    return inspect::Normalised(std::move(extents), facts_.bytes);
}

void VolumeStates::RequireSameBoot() {
    for (const StateView* view : {fixedView_.get(), presentView_.get()})
        if (!view->Trouble().empty()) throw Failure(view->Trouble());
    if (world_.BootMark() != boot_) throw Failure("the machine was booted meanwhile; ask again");
}

}  // namespace ctl
