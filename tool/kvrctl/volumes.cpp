#include "tool/kvrctl/volumes.h"
#include <algorithm>
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr std::u16string_view kDigits = u"0123456789";

std::u16string LastPart(const std::u16string& name) {
    return name.substr(name.rfind(u'\\') + 1);
}

bool IsNumber(const std::u16string& words) {
    return !words.empty() && words.find_first_not_of(kDigits) == words.npos;
}

std::u16string NumberOf(const std::u16string& name) {
    const std::size_t last = name.find_last_not_of(kDigits);
    return last == name.npos ? name : name.substr(last + 1);
}

std::string Listed(const std::vector<KnownVolume>& volumes) {
    std::string text;
    for (const KnownVolume& volume : volumes) {
        text += (text.empty() ? "" : ", ") + ToUtf8(volume.name);
        if (!volume.told.label.empty()) text += " \"" + volume.told.label + "\"";
    }
    return text.empty() ? "there are none" : text;
}

template <class Matches>
std::vector<KnownVolume> Select(const std::vector<KnownVolume>& volumes, const Matches& matches) {
    std::vector<KnownVolume> found;
    std::copy_if(volumes.begin(), volumes.end(), std::back_inserter(found), matches);
    return found;
}

}  // namespace

bool IsDisk(const std::u16string& name) {
    static constexpr std::u16string_view kPrefix = u"\\device\\harddisk";
    if (name.size() <= kPrefix.size() || !EqualIgnoringCase(name.substr(0, kPrefix.size()), kPrefix))
        return false;
    const std::size_t end = name.find_first_not_of(kDigits, kPrefix.size());
    return end != kPrefix.size() && end != name.npos && name[end] == u'\\';
}

std::vector<KnownVolume> KnownVolumes(Client& client) {
    std::vector<KnownVolume> volumes;
    for (const FixedVolume& volume : client.FixedVolumes())
        if (!IsDisk(volume.name) && !volume.name.empty()) volumes.push_back({volume.name, false, {}});
    for (const RemovableVolume& volume : client.RemovableVolumes())
        if (!IsDisk(volume.name) && !volume.name.empty()) volumes.push_back({volume.name, true, {}});
    for (VolumeDescription& told : client.Descriptions())
        for (KnownVolume& volume : volumes)
            if (EqualIgnoringCase(volume.name, told.name)) volume.told = told;
    return volumes;
}

KnownVolume FindVolume(const std::vector<KnownVolume>& volumes, const std::string& words) {
    const std::u16string wanted = FromUtf8(words, "the volume's name");
    auto found = Select(volumes, [&](const KnownVolume& v) { return EqualIgnoringCase(v.name, wanted); });
    if (found.empty())
        found =
            Select(volumes, [&](const KnownVolume& v) { return EqualIgnoringCase(LastPart(v.name), wanted); });
    if (found.empty() && IsNumber(wanted))
        found = Select(volumes, [&](const KnownVolume& v) { return NumberOf(v.name) == wanted; });
    for (const auto field : {&VolumeDescription::partition, &VolumeDescription::label}) {
        if (!found.empty() || wanted.empty()) continue;
        found = Select(volumes, [&](const KnownVolume& v) {
            return EqualIgnoringCase(FromUtf8(v.told.*field, "the volume's label"), wanted);
        });
    }
    if (found.size() == 1) return found[0];
    if (found.empty())
        throw Failure("there is no volume '" + words + "'; the volumes are: " + Listed(volumes), kExitUsage);
    throw Failure("'" + words + "' can mean several volumes: " + Listed(found), kExitUsage);
}

void RequireRoomForStorage(const KnownVolume& volume) {
    if (volume.told.what.find("cannot hold storage") == std::string::npos) return;
    throw Failure(ShortName(volume.name) + " (" +
                      (volume.told.fileSystem.empty() ? "no file system" : volume.told.fileSystem) +
                      ") cannot hold storage; only NTFS and ext volumes can",
                  kExitUsage);
}

std::string ShortName(const std::u16string& name) {
    constexpr std::u16string_view kPrefix = u"\\Device\\";
    return ToUtf8(EqualIgnoringCase(name.substr(0, kPrefix.size()), kPrefix) ? name.substr(kPrefix.size())
                                                                             : name);
}

}  // namespace ctl
