// `kvrhost prove`: the driver proved inside a Windows of the user's own, on a copy of its disk.
#pragma once
#include <cstdint>
#include <string>

namespace tool {

struct ProveOptions {
    std::string image;     // raw; only read
    std::string folder;    // new: logs, answers and, while it runs, the copy; empty: IMAGE.kvr-proof
    std::string emulator;  // a program in qemu's place; empty: qemu
    std::string bus = "sata", firmware;  // empty: as the disk's partitions say
    std::string root = "Windows";
    std::string driver, tool, proof;  // empty: those beside this program or in its build folder
    std::uint64_t storageBytes = 256 * 1024 * 1024;
    unsigned seconds = 0;        // that an act may take; 0: as the list of acts says
    unsigned memory = 4096;      // MiB, of the guest
    bool allowUnsigned = false;  // else a driver without a signature is signed for test mode
    bool keepDisk = false;
    bool withoutKvm = false;
};

// Prints rows of PASS and FAIL, and leaves them with the logs in the folder. 0 when all passed, kExitFailed
// when one did not. Throws Error where the proof cannot be given; the copy is gone then too.
int Prove(const ProveOptions& options);

}  // namespace tool
