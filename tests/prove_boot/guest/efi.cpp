// The guest under UEFI: a program that the firmware starts from \EFI\BOOT. Of the firmware's tables only what
// is used is named; the numbers are places in rows of routines.
#include "tests/prove_boot/guest/guest.h"

namespace {

using Status = std::uint64_t;  // 0: done
using Handle = void*;

struct Guid {
    std::uint32_t a;
    std::uint16_t b, c;
    std::uint8_t d[8];
};
constexpr Guid kBlockIo = {0x964E5B21, 0x6459, 0x11D2, {0x8E, 0x39, 0x00, 0xA0, 0xC9, 0x69, 0x72, 0x3B}};

struct Media {
    std::uint32_t id;
    bool removable, present, partition, readOnly, caching;
    std::uint32_t blockBytes;
};
static_assert(offsetof(Media, blockBytes) == 12);

struct BlockIo;
using Transfer = Status (*)(BlockIo*, std::uint32_t media, std::uint64_t block, std::uint64_t bytes,
                            void* buffer);
struct BlockIo {
    std::uint64_t revision;
    const Media* media;
    void* reset;
    Transfer read, write;
    Status (*flush)(BlockIo*);
};

struct Services {
    std::uint8_t head[24];
    void* routine[64];
};
struct SystemTable {
    std::uint8_t head[88];
    Services* runtime;
    Services* boot;
};

constexpr int kHandleProtocol = 16, kLocateHandle = 19, kConnectController = 30;  // of the boot services
constexpr int kResetSystem = 10;                                                  // of the runtime's
constexpr int kAll = 0, kByProtocol = 2, kWarm = 1, kShutdown = 2;
constexpr std::uint32_t kMostHandles = 512;
constexpr std::uint16_t kPanicPort = 0x505;

SystemTable* gSystem;
BlockIo* gDisks[boot_guest::kMostDisks];
std::uint32_t gDiskCount;

bool Carry(Transfer BlockIo::*how, std::uint32_t disk, std::uint64_t sector, void* buffer,
           std::uint32_t sectors) {
    if (disk >= gDiskCount) return false;
    BlockIo* io = gDisks[disk];
    return (io->*how)(io, io->media->id, sector, std::uint64_t{sectors} * boot_guest::kSector, buffer) == 0;
}

bool Read(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    return Carry(&BlockIo::read, disk, sector, buffer, sectors);
}

bool Write(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    return Carry(&BlockIo::write, disk, sector, buffer, sectors) && gDisks[disk]->flush(gDisks[disk]) == 0;
}

void Leave(int how) {
    using ResetSystem = void (*)(int, Status, std::uint64_t, void*);
    reinterpret_cast<ResetSystem>(gSystem->runtime->routine[kResetSystem])(how, 0, 0, nullptr);
}

void PowerOff() {
    Leave(kShutdown);
}

void Reset() {
    Leave(kWarm);
}

void Panic() {
    asm volatile("outb %0, %1" : : "a"(std::uint8_t{1}), "d"(kPanicPort));
}

using LocateHandle = Status (*)(int, const Guid*, void*, std::uint64_t*, Handle*);
using HandleProtocol = Status (*)(Handle, const Guid*, void**);
using ConnectController = Status (*)(Handle, Handle*, void*, bool);

template <class Routine>
Routine Boot(int place) {
    return reinterpret_cast<Routine>(gSystem->boot->routine[place]);
}

std::uint64_t FindHandles(int how, const Guid* protocol, Handle* handles) {
    std::uint64_t bytes = kMostHandles * sizeof(Handle);
    const Status status = Boot<LocateHandle>(kLocateHandle)(how, protocol, nullptr, &bytes, handles);
    return status == 0 ? bytes / sizeof(Handle) : 0;
}

// Whole disks, not their partitions. The firmware has started only what it boots from.
void FindDisks() {
    static Handle handles[kMostHandles];
    const std::uint64_t all = FindHandles(kAll, nullptr, handles);
    for (std::uint64_t i = 0; i < all; ++i)
        Boot<ConnectController>(kConnectController)(handles[i], nullptr, nullptr, true);
    const std::uint64_t count = FindHandles(kByProtocol, &kBlockIo, handles);
    for (std::uint64_t i = 0; i < count && gDiskCount < boot_guest::kMostDisks; ++i) {
        void* io = nullptr;
        if (Boot<HandleProtocol>(kHandleProtocol)(handles[i], &kBlockIo, &io) != 0) continue;
        const Media* media = static_cast<BlockIo*>(io)->media;
        if (media->present && !media->partition && media->blockBytes == boot_guest::kSector)
            gDisks[gDiskCount++] = static_cast<BlockIo*>(io);
    }
}

}  // namespace

extern "C" Status KvrEfiMain(Handle, SystemTable* system) {
    gSystem = system;
    FindDisks();
    static const boot_guest::Machine machine = {Read, Write, PowerOff, Reset, Panic};
    boot_guest::Play(machine);
    return 0;
}
