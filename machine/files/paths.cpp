#include "machine/files/paths.h"
#include <algorithm>

namespace machine {
namespace {

constexpr std::size_t kLongestName = 255;

bool SplitPath(const VolumeFormat& format, const std::u16string& path, std::vector<std::u16string>& names) {
    if (path.empty() || path[0] != u'\\') return false;
    for (std::size_t at = 1; at < path.size();) {
        const std::size_t end = std::min(path.find(u'\\', at), path.size());
        std::u16string name = path.substr(at, end - at);
        if (name.empty() || name.size() > kLongestName || !format.IsName(name)) return false;
        names.push_back(std::move(name));
        at = end + 1;
    }
    return path.size() == 1 || path.back() != u'\\';
}

// One more step: `place` is an existing directory, and then what `name` means there.
NTSTATUS Descend(VolumeFormat& format, std::u16string name, FilePlace& place) {
    place.above.push_back(place.id.number);
    place.link = {place.id, std::move(name)};
    const NTSTATUS status = format.LookUp(place.link, place.exists, place.id);
    return status == STATUS_NOT_A_DIRECTORY ? STATUS_OBJECT_PATH_NOT_FOUND : status;
}

}  // namespace

NTSTATUS LocatePath(VolumeFormat& format, const std::u16string& path, FilePlace& place) {
    std::vector<std::u16string> names;
    if (!SplitPath(format, path, names)) return STATUS_OBJECT_NAME_INVALID;
    place = {};
    place.exists = true;
    place.id = format.Root();
    for (std::size_t i = 0; i < names.size(); ++i) {
        const NTSTATUS status = Descend(format, std::move(names[i]), place);
        if (!NT_SUCCESS(status)) return status;
        if (!place.exists) return i + 1 == names.size() ? STATUS_SUCCESS : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    place.entry.name = place.link.name;
    return format.Describe(place.id, place.entry);
}

NTSTATUS ListDirectory(VolumeFormat& format, const FileId& id, std::vector<DirectoryEntry>& entries) {
    std::vector<VolumeFormat::Name> names;
    NTSTATUS status = format.ReadDirectory(id, names);
    if (!NT_SUCCESS(status)) return status;
    entries.clear();
    for (VolumeFormat::Name& name : names) {
        DirectoryEntry& entry = entries.emplace_back();
        entry.name = std::move(name.name);
        status = format.Describe(name.id, entry);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

}  // namespace machine
