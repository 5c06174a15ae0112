// The machine that the copy is started in: qemu, or a program in its place.
#pragma once
#include <string>
#include <vector>

namespace tool {

struct MachinePlan {
    std::string program;  // called with: disk, answers' disk, folder; empty: qemu
    std::string disk, answers, folder;
    std::string bus;  // "sata", "ide", "virtio", "nvme"
    bool efi = false;
    unsigned memory = 0;  // MiB
    bool withoutKvm = false;
};

struct BootResult {
    bool timedOut = false;
    int exitCode = 0;       // 128 + signal when a signal ended it
    std::string complaint;  // of qemu's own, the last line of it; empty: the guest ended it
    unsigned seconds = 0;
};

class Emulator {
public:
    // Finds what is needed, and puts the firmware's variables into the folder. Throws Error: no such program,
    // no firmware.
    explicit Emulator(MachinePlan plan);

    bool IsAccelerated() const { return accelerated_; }
    // One boot, until the guest powers off, restarts or stops, or `seconds` have passed; it is then ended. What
    // the program says goes to NAME.emulator.log in the folder, the guest's serial port to NAME.serial.log, and
    // the screen of one that took too long to NAME.screen.ppm. Throws Error when the program cannot be started.
    BootResult Boot(const std::string& name, unsigned seconds) const;

private:
    std::vector<std::string> Command(const std::string& name) const;
    void AddMachine(std::vector<std::string>& words) const;
    void AddDisk(std::vector<std::string>& words, const std::string& path, const std::string& id,
                 int unit) const;
    void FindProcessor();
    void FindFirmware();

    MachinePlan plan_;
    bool accelerated_ = false;
    std::string accelerator_, model_, firmware_, variables_;
};

}  // namespace tool
