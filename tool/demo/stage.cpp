#include "tool/demo/stage.h"

namespace tool {

void Stage::TakeFixedState() {
    const OfflineVolume volume(data.image, data.offset, data.length);
    driverFiles = DriverFileExtents(volume);
    fixedFiles = TableOf(volume);
    fixedHash = HashNow();
}

VolumeHash Stage::HashNow() const {
    return HashVolume(data.image, data.offset, data.length, driverFiles);
}

bool Stage::CheckUnchanged(const std::string& name, const std::string& when) {
    const VolumeHash now = HashNow();
    const bool same = now == fixedHash;
    return report.Check(name, same,
                        "sha256 " + Short(fixedHash.digest) + " before, " + Short(now.digest) + " " + when +
                            ", over " + Bytes(now.covered) + " of the volume in the image");
}

bool Stage::CheckFiles(const std::string& name, const FileTable& expected) {
    const Comparison found = CompareWith(computer.Data(), expected);
    const std::string compared = Count(found.files, "file") + ", " + Bytes(found.bytes) + " read back";
    return report.Check(name, found.difference.empty(),
                        found.difference.empty() ? compared + ", all as expected" : found.difference);
}

Configuration Stage::Protecting(BootMode mode, const std::string& date, BootAction action) {
    Configuration configuration;
    configuration.removable = RemovableAccess::Protected;
    FixedVolumeSection section;
    section.id = computer.DataName();
    section.mode = mode;
    section.discardDate = date;
    section.action = action;
    configuration.fixed.push_back(section);
    return configuration;
}

void Stage::BootWith(const Configuration& configuration) {
    BootIfOff();
    computer.Configure(configuration);
    computer.Reboot();
}

void Stage::BootIfOff() {
    if (!computer.IsOn()) computer.Boot();
}

}  // namespace tool
