#include "tool/demo/stage.h"

namespace tool {

// The drivers are told first, and the programs and file systems end after them.
void ShowShutdown(Stage& stage) {
    stage.BootWith(stage.Protecting(config::kBootModeDiscard));  // whatever was kept is gone
    stage.BootWith(stage.Protecting(config::kBootModeKeep));
    Work work = DoWork(stage.computer.Data(), stage.fixedFiles, 701);
    stage.report.Note(work.Text());
    stage.computer.ShutdownDuring(machine::ShutdownStep::Notified,
                                  [&] { work = DoWork(stage.computer.Data(), work.after, 702); });
    stage.report.Note(work.Text() + ", after the drivers were told of the shutdown");
    stage.CheckUnchanged("the volume's own sectors are untouched", "after the shutdown");

    stage.computer.Boot();
    stage.CheckFiles("what was written in its course is kept as well", work.after);
    stage.computer.ShutdownDuring(machine::ShutdownStep::RegistryWritten,
                                  [&] { work = DoWork(stage.computer.Data(), work.after, 703); });
    stage.computer.Boot();
    stage.CheckFiles("to the last moment in which there are files", work.after);
}

}  // namespace tool
