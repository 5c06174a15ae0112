#include "tests/prove_boot/guest/guest.h"

namespace boot_guest {
namespace {

alignas(16) std::uint8_t gSector[kSector];
alignas(16) proof::Order gOrder;
alignas(16) proof::Answer gAnswer;
alignas(16) std::uint8_t gTold[kSector];

struct Disks {
    std::uint32_t system = kMostDisks, answers = kMostDisks;
};

Disks Find(const Machine& machine) {
    Disks disks;
    for (std::uint32_t disk = 0; disk < kMostDisks; ++disk) {
        const auto* told = reinterpret_cast<const Told*>(gTold);
        if (disks.system == kMostDisks && machine.read(disk, kToldAt, gTold, 1) && told->magic == kToldMagic)
            disks.system = disk;
        else if (disks.answers == kMostDisks && machine.read(disk, proof::kOrderAt / kSector, &gOrder, 1) &&
                 proof::IsOrder(gOrder))
            disks.answers = disk;
    }
    if (disks.system != kMostDisks) machine.read(disks.system, kToldAt, gTold, 1);
    if (disks.answers != kMostDisks) machine.read(disks.answers, proof::kOrderAt / kSector, &gOrder, 1);
    return disks;
}

void Report(const char* name, bool passed) {
    proof::Row& row = gAnswer.row[gAnswer.rows++];
    for (std::uint32_t i = 0; name[i] != 0; ++i) row.name[i] = name[i];
    row.passed = passed ? 1 : 0;
}

void Save(const Machine& machine, const Disks& disks, Mode mode) {
    gAnswer.checksum = proof::ChecksumOf(gAnswer) + (mode == Mode::Torn ? 1 : 0);
    machine.write(disks.answers, proof::kAnswerAt / kSector, &gAnswer, sizeof gAnswer / kSector);
}

void Change(const Machine& machine, const Disks& disks, std::uint64_t sector) {
    if (!machine.read(disks.system, sector, gSector, 1)) return;
    ++gSector[0];
    Report("a sector of the volume is written", machine.write(disks.system, sector, gSector, 1));
}

void Leave(const Machine& machine, Mode mode) {
    if (mode == Mode::Panics) machine.panic();
    if (mode == Mode::Resets) machine.reset();
    for (volatile bool forEver = true; forEver;) {
    }
}

}  // namespace

void Play(const Machine& machine) {
    const Disks disks = Find(machine);
    if (disks.system == kMostDisks || disks.answers == kMostDisks) machine.powerOff();
    const Told told = *reinterpret_cast<const Told*>(gTold);
    const Mode mode = gOrder.act == told.act ? told.mode : Mode::Honest;
    if (mode == Mode::Silent) machine.powerOff();
    gAnswer.magic = proof::kAnswerMagic;
    gAnswer.version = proof::kVersion;
    gAnswer.act = gOrder.act;
    gAnswer.run = gOrder.run + (mode == Mode::Stale ? 1 : 0);
    gAnswer.state = proof::State::Begun;
    Report("the guest has booted", true);
    Save(machine, disks, mode);
    if (mode >= Mode::Hangs) Leave(machine, mode);
    const bool merges = proof::kActs[gOrder.act - 1].sectors == proof::Sectors::Changed;
    if (mode == Mode::Lies || (merges && mode != Mode::Idle)) Change(machine, disks, told.sector);
    if (mode == Mode::Fails) Report("something must work", false);
    gAnswer.state = proof::State::Ended;
    Save(machine, disks, mode);
    machine.powerOff();
}

}  // namespace boot_guest
