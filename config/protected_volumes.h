// The protected-volume list, one entry per volume section of the configuration, and how it applies to a volume.
#pragma once
#include "driver/record/volume_extension.h"

inline constexpr ULONG PV_PROTECTED = 0x001;
inline constexpr ULONG PV_INVISIBLE = 0x002;
inline constexpr ULONG PV_ACTION_DISCARD = 0x010;
inline constexpr ULONG PV_ACTION_MERGE = 0x020;
inline constexpr ULONG PV_EXPLICIT = 0x100;

// Lives as long as the driver; complete before it is linked.
struct PROTECTED_VOLUME {
    UNICODE_STRING Name;  // over NameBuffer
    WCHAR NameBuffer[64];
    ULONG Flags;
    std::atomic<PROTECTED_VOLUME*> Next;
    BOOLEAN DropsAtNextBoot;  // the boot mode gives up every change at every boot
};
extern std::atomic<PROTECTED_VOLUME*> gProtectedVolumeList;

// `id`: a name, and what follows it behind a comma or semicolon; 64 characters of it count. The first section
// of a name wins. STATUS_INSUFFICIENT_RESOURCES when no entry could be made. For the one parse only: no lock
// guards the list.
[[nodiscard]] NTSTATUS AddProtectedVolume(PCUNICODE_STRING id, ULONG flags, BOOLEAN dropsAtNextBoot = FALSE);
// By the volume's name; flags 0 also when there is no entry. No locks; IRQL: PASSIVE_LEVEL.
[[nodiscard]] BOOLEAN IsProtectedVolumeListed(PVOLUME_EXTENSION volume);
[[nodiscard]] ULONG GetProtectedVolumeFlags(PVOLUME_EXTENSION volume);
// Applies the list, the removable defaults and the storage's state to the volume. Takes no lock. IRQL: at most
// APC_LEVEL.
void UpdateVolumeProtection(PVOLUME_EXTENSION volume);
// Asks the device below how large it is and, for a disk whose names do not tell, which number it has, and
// brings every disk's idea of where its partition tables lie up to date. For the start of a volume or disk,
// with its extents known. Takes gVolumeListLock. IRQL: PASSIVE_LEVEL.
void LearnPlace(PVOLUME_EXTENSION volume);
// Would the write touch a partition table of the disk: its first sectors or its last ones, as far as no volume
// lies there? Takes no lock. IRQL: any.
[[nodiscard]] BOOLEAN TouchesPartitionTable(PVOLUME_EXTENSION disk, LONGLONG offset, ULONG length);
// Under gHardening: the volume is to be protected and cannot be, since its map is bad or its storage is
// missing, or its changes are to be kept and would not be, since its storage is not held. Then nothing may be
// written to it, so that nobody takes it for protected. Storage that is removed or made in this boot lifts that
// until the next one. Takes no lock. IRQL: at most APC_LEVEL.
[[nodiscard]] BOOLEAN AreWritesRefused(PVOLUME_EXTENSION volume);
// Will the next boot give up all that the volume has redirected? By the boot mode of the present configuration,
// not by what it did at this boot; a configuration that was written since, or is to be written back, may say
// otherwise.
[[nodiscard]] BOOLEAN IsDroppedAtNextBoot(PVOLUME_EXTENSION volume);
// Does the disk under this filter hold a protected volume? Takes gVolumeListLock. IRQL: at most APC_LEVEL.
[[nodiscard]] BOOLEAN HasProtectedVolume(PDEVICE_OBJECT device);
