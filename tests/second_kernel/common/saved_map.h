// The saved map of a volume as it lies on the medium, found by the location in the registry and read without
// the driver's help. IRQL: PASSIVE_LEVEL.
#pragma once
#include "tests/second_kernel/common/computer.h"

// The registry's value of that name; its bytes, 0 when there is none.
[[nodiscard]] ULONG ReadDriverValue(const WCHAR* name, PVOID buffer, ULONG length);

struct SavedRun {
    ULONG Sector;
    ULONG Bytes;
};
inline constexpr ULONG kMostRuns = 128;

struct SavedMap {
    ULONG Runs;
    SavedRun Location[kMostRuns];
    ULONGLONG LocationBytes;
    ULONG Swapped;  // entries
    ULONG Free;
    ULONGLONG SwappedBytes;
    ULONGLONG FreeBytes;
};
// A check fails for an entry with a wrong check byte, without sectors or outside the volume's storage files.
void ReadSavedMap(Computer* computer, SavedMap* map);
// Does the saved map redirect every byte of [offset, offset + length) of the data volume?
[[nodiscard]] bool IsSavedAsRedirected(Computer* computer, LONGLONG offset, ULONG length);
