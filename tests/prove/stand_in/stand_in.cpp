// The guest of tests/prove_boot/guest without a firmware, as a program in the emulator's place: the disks are
// files.
//
//   prove_stand_in DISK ANSWERS FOLDER
#include <fstream>
#include <unistd.h>
#include "tests/prove_boot/guest/guest.h"

namespace {

std::fstream gDisks[2];

bool Read(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    if (disk >= std::size(gDisks)) return false;
    gDisks[disk].seekg(static_cast<std::streamoff>(sector * boot_guest::kSector));
    return gDisks[disk].read(static_cast<char*>(buffer), sectors * boot_guest::kSector).good();
}

bool Write(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    gDisks[disk].seekp(static_cast<std::streamoff>(sector * boot_guest::kSector));
    return gDisks[disk].write(static_cast<char*>(buffer), sectors * boot_guest::kSector).flush().good();
}

void End() {
    _exit(0);
}

void Crash() {
    _exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    for (int disk = 0; disk < 2; ++disk)
        gDisks[disk].open(argv[1 + disk], std::ios::in | std::ios::out | std::ios::binary);
    boot_guest::Play({Read, Write, End, End, Crash});
}
