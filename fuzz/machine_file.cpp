// The list of a machine's disks, which a person may edit: any bytes. What can be read is written so that it is
// read back the same.
#include "fuzz/support.h"
#include <sstream>
#include "nbd/machine_folder.h"

namespace {

nbd::MachineFolder Read(const std::string& text) {
    std::istringstream lines(text);
    nbd::MachineFolder folder;
    folder.disks = nbd::MachineFolder::ParseDisks(lines, "machine");
    return folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    nbd::MachineFolder folder;
    try {
        folder = Read({reinterpret_cast<const char*>(data), size});
    } catch (const nbd::Error& error) {
        fuzz::Require(std::string(error.what()).starts_with("machine "), "the file is named");
        return 0;
    }
    for (const nbd::FolderDisk& disk : folder.disks) {
        fuzz::Require(!disk.path.empty() && disk.path.find('\n') == std::string::npos, "a disk has a path");
        fuzz::Require(disk.sectorBytes == 512 || disk.sectorBytes == 4096, "sectors are 512 or 4096 bytes");
    }
    try {
        fuzz::Require(Read(folder.Text()).Text() == folder.Text(), "what is read back is the same");
    } catch (const nbd::Error& error) {
        fuzz::Require(false, std::string("what is written can be read: ") + error.what());
    }
    return 0;
}
