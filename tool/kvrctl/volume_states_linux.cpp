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
        for (const FixedVolume& volume : client.FixedVolumes())
            if (EqualIgnoringCase(volume.name, name_)) protected_ = volume.state != 0;
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

std::string Printable(const std::string& text, bool lines) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string shown;
    for (std::size_t at = 0; at < text.size();) {
        std::u16string understood;
        const std::string_view rest = std::string_view(text).substr(at);
        std::size_t length = 1;
        while (length < std::min<std::size_t>(4, rest.size()) && (rest[length] & 0xC0) == 0x80) ++length;
        const bool whole =
            posix::AppendUtf8(rest.substr(0, length), posix::Halves::Refused, understood) == length;
        const bool control = whole && (understood[0] < 0x20 || (understood[0] >= 0x7F && understood[0] < 0xA0));
        if (whole && (!control || (lines && (understood[0] == u'\n' || understood[0] == u'\t')))) {
            shown += rest.substr(0, length);
        } else {
            length = whole ? length : 1;
            for (const char c : rest.substr(0, length)) {
                const auto byte = static_cast<unsigned char>(c);
                shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
            }
        }
        at += length;
    }
    return shown;
}

}  // namespace ctl
