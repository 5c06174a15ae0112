// What the demonstration's rows share: the computer, the place of the protected volume, its fixed state as it
// was last seen from outside, and the checks that every row makes against it.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "tool/demo/computer.h"
#include "tool/demo/content.h"
#include "tool/demo/report.h"
#include "tool/demo/volume_hash.h"

namespace tool {

struct Stage {
    Report& report;
    Computer& computer;
    Place data;
    std::string folder;  // for files of a row's own

    std::vector<Extent> driverFiles;  // of the data volume
    VolumeHash fixedHash;             // of the data volume without them
    FileTable fixedFiles;             // on the data volume

    // Looks at the data volume while the computer is off and takes what it finds for the fixed state.
    void TakeFixedState();
    VolumeHash HashNow() const;

    // Each adds a row to the report and returns whether it passed.
    bool CheckUnchanged(const std::string& name, const std::string& when);
    bool CheckFiles(const std::string& name, const FileTable& expected);

    // The configuration in which all rows but the merge start: the data volume protected, removable volumes
    // too.
    std::u16string Protecting(std::uint32_t bootMode, const std::u16string& date = {},
                              std::uint32_t action = 0);
    // Of the data volume, as the driver would read it now; empty without.
    std::string SettingInForce(config::Key key);
    // Writes the configuration and boots so that it takes effect; also boots when the power is off.
    void BootWith(const std::u16string& configuration);
    void BootIfOff();
};

// The rows, in the order of the demonstration. Each leaves the computer on or off as it happens to be; one that
// throws StepFailed may leave anything that a power cut and a boot in discard mode mend.
void ShowDiscard(Stage& stage);
void ShowKeep(Stage& stage);
void ShowMerge(Stage& stage);
void ShowPowerCut(Stage& stage);
void ShowStorageFull(Stage& stage);
void ShowRefused(Stage& stage);
void ShowShutdown(Stage& stage);
void ShowRenamed(Stage& stage);
void ShowLocked(Stage& stage);

}  // namespace tool
