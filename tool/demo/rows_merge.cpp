#include "machine/partition/subprocess.h"
#include "tool/demo/sparse_file.h"
#include "tool/demo/stage.h"

namespace tool {
namespace {

std::string ActionInForce(Stage& stage) {
    return stage.SettingInForce(config::Key::BootAction);
}

std::string LastLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    const std::size_t end = text.find_last_of('\n');
    return end == std::string::npos ? text : text.substr(end + 1);
}

// Asks a checker that knows nothing of us whether the volume in the image is sound.
void CheckSound(Stage& stage) {
    const std::string copy = stage.folder + "/volume.img";
    ExtractSparse(stage.data.image, stage.data.offset, stage.data.length, copy);
    const machine::ToolResult result = machine::RunTool("ntfsresize", {"-i", "-f", copy});
    unlink(copy.c_str());
    stage.report.Check("ntfsresize -i -f finds the volume sound", result.started && result.exitCode == 0,
                       !result.started ? "ntfsresize is missing (package ntfs-3g)"
                                       : "exit code " + std::to_string(result.exitCode) +
                                             (result.exitCode == 0 ? "" : ": " + LastLine(result.output)));
}

}  // namespace

void ShowMerge(Stage& stage) {
    stage.BootWith(stage.Protecting(config::kBootModeDiscard));  // whatever was kept is gone
    stage.BootWith(stage.Protecting(config::kBootModeKeep));
    const Work work = DoWork(stage.computer.Data(), stage.fixedFiles, 303);
    stage.report.Note(work.Text());
    stage.computer.Configure(stage.Protecting(config::kBootModeKeep, u"", config::kActionMerge));
    stage.computer.Shutdown();
    stage.CheckUnchanged("before the merge the volume is untouched", "with the merge ordered");

    stage.computer.Boot();
    const FixedVolume status = stage.computer.DataStatus();
    stage.report.Check("one boot merges, nothing is redirected any more",
                       status.swapUsed == 0 && status.swapTotal > 0,
                       Bytes(status.swapUsed) + " of " + Bytes(status.swapTotal) + " used");
    stage.CheckFiles("the changed files are there", work.after);
    const std::string action = ActionInForce(stage);
    stage.report.Check("the order is used up", action == "0", "BootAction = " + action);
    stage.computer.Shutdown();

    const VolumeHash before = stage.fixedHash;
    stage.TakeFixedState();
    const Comparison offline = Compare(stage.fixedFiles, work.after);
    stage.report.Check("the image itself holds the changed files", offline.difference.empty(),
                       offline.difference.empty() ? Count(offline.files, "file") + ", " + Bytes(offline.bytes) +
                                                        " read from the image, sha256 " + Short(before.digest) +
                                                        " became " + Short(stage.fixedHash.digest)
                                                  : offline.difference);
    CheckSound(stage);

    stage.computer.Boot();
    const Work more = DoWork(stage.computer.Data(), stage.fixedFiles, 304);
    stage.computer.Reboot();
    stage.CheckFiles("later changes are kept", more.after);
    stage.computer.Shutdown();
    stage.CheckUnchanged("and not merged again", "two boots later");
}

}  // namespace tool
