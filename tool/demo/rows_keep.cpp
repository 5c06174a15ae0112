#include "tool/demo/stage.h"

namespace tool {
namespace {

constexpr char kDiscardDate[] = "203105100900";  // local time

std::string DateInForce(Stage& stage) {
    return stage.SettingInForce(config::Key::NextDiscardTS);
}

void CheckDate(Stage& stage, const std::string& name, const std::string& expected) {
    const std::string date = DateInForce(stage);
    stage.report.Check(name, date == expected, "NextDiscardTS = " + date + " at " + stage.computer.LocalDate());
}

}  // namespace

void ShowKeep(Stage& stage) {
    stage.computer.SetClock(2031, 5, 6, 8, 0);
    stage.BootWith(stage.Protecting(config::kBootModeKeep, Widen(kDiscardDate)));
    const Work work = DoWork(stage.computer.Data(), stage.fixedFiles, 202);
    stage.report.Note(work.Text() + ", to be kept until " + kDiscardDate);

    stage.computer.SetClock(2031, 5, 8, 8, 0);
    stage.computer.Reboot();
    stage.CheckFiles("the changes survive a reboot", work.after);
    stage.computer.SetClock(2031, 5, 10, 7, 59);  // a minute too early in local time
    stage.computer.Reboot();
    stage.CheckFiles("and another one a minute before the date", work.after);
    CheckDate(stage, "the date stands", kDiscardDate);
    stage.CheckUnchanged("the volume's own sectors are untouched", "with changes kept over two boots");

    stage.computer.SetClock(2031, 5, 10, 8, 0);
    stage.computer.Reboot();
    stage.CheckFiles("the first boot at the date throws the changes away", stage.fixedFiles);
    CheckDate(stage, "the date is used up", config::kNoDate);
    stage.computer.Shutdown();
    stage.CheckUnchanged("the volume's own sectors are untouched", "after the discard");

    stage.computer.Boot();
    const Work next = DoWork(stage.computer.Data(), stage.fixedFiles, 203);
    stage.computer.Reboot();
    stage.CheckFiles("without a date changes are kept again", next.after);
}

}  // namespace tool
