#include "tool/prove/fixed_state.h"
#include <algorithm>
#include <utility>
#include "inspect/owners.h"
#include "tool/kvrctl/printable.h"
#include "tool/text.h"

namespace tool {
namespace {

// Paging and hibernation pass protection, and the boot loader notes how a start went.
constexpr const char* kFreeFiles[] = {"/pagefile.sys", "/swapfile.sys", "/hiberfil.sys",
                                      "/bootstat.dat", "/Boot/BCD",     "/Boot/bootstat.dat"};
constexpr char kFreeInRoot[] = "/bootstat.dat";
constexpr std::size_t kMostPlaces = 3;  // that are named

const inspect::Progress kSilent = [](const char*, std::uint64_t, std::uint64_t) {};

}  // namespace

FixedState::FixedState(std::string image, std::uint64_t offset, std::uint64_t length, std::string root)
    : image_(std::move(image)), root_("/" + std::move(root)) {
    std::replace(root_.begin(), root_.end(), '\\', '/');
    seal_.offset = offset;
    seal_.length = length;
}

std::vector<inspect::Extent> FixedState::LeftOut(inspect::ImageWindow& window) const {
    const auto table = inspect::FileTable::Open(window);
    if (table == nullptr) throw inspect::Error("the volume of Windows holds no file system any more");
    std::vector<inspect::Extent> extents = inspect::OwnExtents(*table, seal_.length);
    std::vector<std::string> free(std::begin(kFreeFiles), std::end(kFreeFiles));
    free.push_back(root_ + kFreeInRoot);
    for (const std::string& path : free) {
        inspect::FileRecord record;
        const auto id = table->Find(path);
        if (!id || !table->Read(*id, record)) continue;
        extents.insert(extents.end(), record.data.begin(), record.data.end());
    }
    return inspect::Normalised(std::move(extents), seal_.length);
}

void FixedState::Take() {
    inspect::ImageWindow window(image_, seal_.offset, seal_.length);
    const std::atomic<bool> never{false};
    seal_.fileSystem = FileSystemKind::Ntfs;
    seal_.leftOut = LeftOut(window);
    static_cast<void>(inspect::TakeSeal(image_, seal_, never, kSilent));  // nothing stops it
}

std::string FixedState::Changes() const {
    inspect::ImageWindow window(image_, seal_.offset, seal_.length);
    // What is left out now and was not then would hide a write into the fixed state: only the old list counts.
    const auto changed = inspect::CompareSeal(image_, seal_, {}, kSilent);
    if (changed.empty()) return {};
    std::string text = ctl::SizeText(inspect::TotalLength(changed)) + " differ";
    const std::size_t named = std::min(changed.size(), kMostPlaces);
    const std::vector<inspect::Extent> first(changed.begin(),
                                             changed.begin() + static_cast<std::ptrdiff_t>(named));
    for (const inspect::Owned& owned : inspect::OwnersOf(window, first, FileSystemKind::Ntfs))
        text += ", at byte " + std::to_string(owned.place.offset) + " (" +
                ctl::Printable(owned.owners.front()) + ")";
    return text;
}

std::uint64_t FixedState::Covered() const {
    return seal_.length - inspect::TotalLength(seal_.leftOut);
}

}  // namespace tool
