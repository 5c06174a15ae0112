#include "tool/demo/stage.h"
#include "tool/kvrctl/config_scan.h"

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

std::u16string Stage::Protecting(std::uint32_t bootMode, const std::u16string& date, std::uint32_t action) {
    return config::GlobalSection(true, 1) +
           config::FixedSection({computer.DataName(), true, bootMode, action, date}, 1);
}

std::string Stage::SettingInForce(config::Key key) {
    return Narrow(ctl::ScanConfig(computer.ConfigurationInForce()).ValueOf(computer.DataName(), key));
}

void Stage::BootWith(const std::u16string& configuration) {
    BootIfOff();
    computer.Configure(configuration);
    computer.Reboot();
}

void Stage::BootIfOff() {
    if (!computer.IsOn()) computer.Boot();
}

}  // namespace tool
