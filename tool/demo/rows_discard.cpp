#include "tool/demo/stage.h"

namespace tool {

void ShowDiscard(Stage& stage) {
    stage.BootIfOff();
    stage.CheckFiles("the protected volume shows its files", stage.fixedFiles);
    const Work work = DoWork(stage.computer.Data(), stage.fixedFiles, 101);
    stage.report.Note(work.Text());
    stage.CheckFiles("later reads see the changes", work.after);
    const FixedVolume status = stage.computer.DataStatus();
    stage.report.Check("the changes are in the swap storage",
                       status.swapUsed > 0 && static_cast<std::uint64_t>(status.swapUsed) >= work.bytes / 2,
                       Bytes(status.swapUsed) + " of " + Bytes(status.swapTotal) + " used");
    stage.CheckUnchanged("the volume's own sectors are untouched", "with the changes visible");
    stage.computer.Shutdown();
    stage.CheckUnchanged("they are untouched by the shutdown", "after it");
    stage.computer.Boot();
    stage.CheckFiles("after a reboot the old files are back", stage.fixedFiles);
    const FixedVolume after = stage.computer.DataStatus();
    stage.report.Check("the swap storage is free again", after.swapUsed < status.swapUsed / 2,
                       Bytes(after.swapUsed) + " used");
}

}  // namespace tool
