#include "tool/kvrhost/lines.h"
#include <cstddef>
#include "tool/kvrhost/paste.h"

namespace tool {
namespace {

// One -drive for each disk of the machine. On the board q35 "ide" is SATA, for which every system has a driver.
std::string Drives(const nbd::MachineFolder& folder, const std::string& socket) {
    std::string drives;
    for (std::size_t number = 0; number < folder.disks.size(); ++number)
        drives += " -drive file='nbd+unix:///disk" + std::to_string(number) + socket +
                  "',format=raw,if=ide,werror=stop";
    return drives;
}

}  // namespace

std::string LinesToPaste(const nbd::MachineFolder& folder) {
    const std::string socket = "?socket=" + UriPath(folder.File(nbd::kNbdSocket));
    const std::string computer = "qemu-system-x86_64 -M q35,accel=kvm:tcg -m 2048";
    const std::string drives = Drives(folder, socket);
    return "The machine in " + folder.path +
           " is on. Lines for a virtual machine (with BIOS or UEFI firmware, as its disk was\n"
           "installed; if=virtio is faster where the guest has that driver), a mount and a copy:\n  " +
           computer + drives + "\n  " + computer + " -bios /usr/share/ovmf/OVMF.fd" + drives +
           "\n  nbdfuse MOUNTPOINT 'nbd+unix:///HarddiskVolume1" + socket +
           "'\n  qemu-img convert -p -O qcow2 'nbd+unix:///disk0" + socket +
           "' COPY.qcow2\nAll exports: nbdinfo --list 'nbd+unix:///" + socket +
           "'\nStop it with: kvrhost stop " + ShellWord(folder.path) + "\n";
}

}  // namespace tool
