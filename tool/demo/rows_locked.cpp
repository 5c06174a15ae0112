#include "tool/demo/stage.h"

namespace tool {

// A volume that nobody has unlocked yet when the computer starts, as an encrypted one or one on a network disk.
void ShowLocked(Stage& stage) {
    stage.BootWith(stage.Protecting(config::kBootModeDiscard));  // whatever was kept is gone
    stage.BootWith(stage.Protecting(config::kBootModeKeep));
    const Work work = DoWork(stage.computer.Data(), stage.fixedFiles, 707);
    stage.computer.Shutdown();
    stage.computer.BootLocked();
    machine::Machine& computer = stage.computer.Hardware();
    const unsigned number = stage.computer.DataNumber();
    const std::vector<std::uint8_t> sector(stage.data.sectorBytes);
    const NTSTATUS status = computer.Write(number, stage.data.length / 2 / sector.size() * sector.size(),
                                           sector.data(), static_cast<std::uint32_t>(sector.size()));
    stage.report.Check("while the volume is locked nothing is written to it", !NT_SUCCESS(status),
                       StatusText(status));
    stage.computer.Unlock();
    stage.CheckFiles("once it is unlocked, the kept changes are there", work.after);
    const Work more = DoWork(stage.computer.Data(), work.after, 708);
    stage.computer.Reboot();
    stage.CheckFiles("and what is changed then is kept as well", more.after);
    stage.computer.Shutdown();
    stage.CheckUnchanged("the volume's own sectors are untouched", "after it");
}

}  // namespace tool
