// The guest under UEFI: a program that the firmware starts from \EFI\BOOT. It is told no mode that leaves the
// machine in another way than by its power.
#include <efi.h>
#include "tests/prove_boot/guest/guest.h"

namespace {

constexpr std::uint32_t kMostHandles = 512;

EFI_SYSTEM_TABLE* gSystem;
EFI_BLOCK_IO* gDisks[boot_guest::kMostDisks];
std::uint32_t gDiskCount;

bool Read(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    if (disk >= gDiskCount) return false;
    EFI_BLOCK_IO* io = gDisks[disk];
    return io->ReadBlocks(io, io->Media->MediaId, sector, sectors * boot_guest::kSector, buffer) == EFI_SUCCESS;
}

bool Write(std::uint32_t disk, std::uint64_t sector, void* buffer, std::uint32_t sectors) {
    EFI_BLOCK_IO* io = gDisks[disk];
    return io->WriteBlocks(io, io->Media->MediaId, sector, sectors * boot_guest::kSector, buffer) ==
               EFI_SUCCESS &&
           io->FlushBlocks(io) == EFI_SUCCESS;
}

void PowerOff() {
    gSystem->RuntimeServices->ResetSystem(EfiResetShutdown, EFI_SUCCESS, 0, nullptr);
}

std::uint64_t FindHandles(EFI_LOCATE_SEARCH_TYPE how, EFI_GUID* protocol, EFI_HANDLE* handles) {
    UINTN bytes = kMostHandles * sizeof(EFI_HANDLE);
    const EFI_STATUS status = gSystem->BootServices->LocateHandle(how, protocol, nullptr, &bytes, handles);
    return status == EFI_SUCCESS ? bytes / sizeof(EFI_HANDLE) : 0;
}

// Whole disks, not their partitions. The firmware has started only what it boots from.
void FindDisks() {
    static EFI_HANDLE handles[kMostHandles];
    static EFI_GUID blockIo = EFI_BLOCK_IO_PROTOCOL_GUID;
    const std::uint64_t all = FindHandles(AllHandles, nullptr, handles);
    for (std::uint64_t i = 0; i < all; ++i)
        gSystem->BootServices->ConnectController(handles[i], nullptr, nullptr, TRUE);
    const std::uint64_t count = FindHandles(ByProtocol, &blockIo, handles);
    for (std::uint64_t i = 0; i < count && gDiskCount < boot_guest::kMostDisks; ++i) {
        void* io = nullptr;
        if (gSystem->BootServices->HandleProtocol(handles[i], &blockIo, &io) != EFI_SUCCESS) continue;
        const EFI_BLOCK_IO_MEDIA* media = static_cast<EFI_BLOCK_IO*>(io)->Media;
        if (media->MediaPresent && !media->LogicalPartition && media->BlockSize == boot_guest::kSector)
            gDisks[gDiskCount++] = static_cast<EFI_BLOCK_IO*>(io);
    }
}

}  // namespace

extern "C" EFI_STATUS KvrEfiMain(EFI_HANDLE, EFI_SYSTEM_TABLE* system) {
    gSystem = system;
    FindDisks();
    static const boot_guest::Machine machine = {Read, Write, PowerOff, nullptr, nullptr};
    boot_guest::Play(machine);
    return EFI_SUCCESS;
}
