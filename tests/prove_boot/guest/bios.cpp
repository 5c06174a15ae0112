// The guest under a BIOS: the disk's first sector, which loads what lies behind it, and the rest. Real mode;
// all of it lies in the first 64 KiB.
#include "tests/prove_boot/guest/guest.h"

extern "C" void KvrBiosMain();

// The first sector's 440 bytes of code: 31 sectors from the second on to where they were linked to.
asm(R"(
    .code16
    .section .boot, "ax"
    .globl KvrBoot
KvrBoot:
    cli
    xorw %ax, %ax
    movw %ax, %ds
    movw %ax, %es
    movw %ax, %ss
    movl $0x7C00, %esp
    sti
    cld
    movw $KvrPacket, %si
    movb $0x42, %ah
    int $0x13
    jc 1f
    ljmp $0, $KvrBiosStart
1:  hlt
    jmp 1b
KvrPacket:
    .byte 16, 0
    .word 31, 0x7E00, 0
    .quad 1
    .section .start, "ax"
KvrBiosStart:
    calll KvrBiosMain
2:  hlt
    jmp 2b
    .code16gcc
)");

namespace {

using boot_guest::kSector;

constexpr std::uint16_t kPanicPort = 0x505;
constexpr std::uint8_t kGuestPanicked = 1;
constexpr std::uint8_t kFirstDisk = 0x80, kReadExtended = 0x42, kWriteExtended = 0x43;

struct Packet {
    std::uint8_t size, reserved;
    std::uint16_t sectors, offset, segment;
    std::uint64_t sector;
};
static_assert(sizeof(Packet) == 16);

Packet gPacket;

bool Transfer(std::uint8_t function, std::uint32_t disk, std::uint64_t sector, void* buffer,
              std::uint32_t sectors) {
    gPacket = {16,
               0,
               static_cast<std::uint16_t>(sectors),
               static_cast<std::uint16_t>(reinterpret_cast<std::uintptr_t>(buffer)),
               0,
               sector};
    std::uint32_t a = std::uint32_t{function} << 8;
    std::uint8_t failed = 1;
    asm volatile("int $0x13\n\tsetc %1"
                 : "+a"(a), "=qm"(failed)
                 : "d"(kFirstDisk + disk), "S"(&gPacket)
                 : "memory", "cc");
    return failed == 0;
}

bool Read(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    return Transfer(kReadExtended, disk, sector, buffer, sectors);
}

bool Write(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    return Transfer(kWriteExtended, disk, sector, buffer, sectors);
}

// By the firmware's power management.
void PowerOff() {
    asm volatile("int $0x15" : : "a"(0x5307), "b"(1), "c"(3) : "memory", "cc");
}

void Reset() {
    asm volatile("outb %0, %1" : : "a"(std::uint8_t{6}), "d"(std::uint16_t{0xCF9}));
}

void Panic() {
    asm volatile("outb %0, %1" : : "a"(kGuestPanicked), "d"(kPanicPort));
}

}  // namespace

extern "C" void KvrBiosMain() {
    static const boot_guest::Machine machine = {Read, Write, PowerOff, Reset, Panic};
    boot_guest::Play(machine);
}
