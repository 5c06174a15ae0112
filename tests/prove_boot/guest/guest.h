// A guest that really boots and plays no Windows: it finds the order on the answers' disk, answers it as if the
// act had passed, and powers off, or does what it was told to do at one act. Freestanding; how disks are
// reached and the machine is left is the firmware's side.
#pragma once
#include "formats/proof_acts.h"
#include "formats/proof_disk.h"

namespace boot_guest {

constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kToldAt = 40;  // the sector of the system's disk, between the table and the partitions

// What the guest is to do at which act. Idle: a merge changes nothing; Torn, Stale: no answer of it counts.
enum class Mode : std::uint32_t { Honest, Fails, Lies, Idle, Silent, Torn, Stale, Hangs, Resets, Panics };
struct Told {
    std::uint64_t magic;
    Mode mode;
    std::uint32_t act;
    std::uint64_t sector;  // of the system's disk, that a merge and a lie change
};
constexpr std::uint64_t kToldMagic = 0x444C4F5452564BULL;

// The firmware's side.
struct Machine {
    bool (*read)(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors);
    bool (*write)(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors);
    void (*powerOff)();
    void (*reset)();
    void (*panic)();
};
constexpr std::uint32_t kMostDisks = 8;

// Does not return where the machine is left.
void Play(const Machine& machine);

}  // namespace boot_guest
