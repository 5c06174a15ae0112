// Where the sixteen pieces of kvr.cfg lie: learned from the file system's own write of the file
// (PostloadConfigLocation), kept in the registry under the volume's name, loaded when the volume starts
// (PreloadConfigLocation). Byte offsets on the volume; 0: unknown. IRQL: PASSIVE_LEVEL.
#pragma once
#include "driver/record/volume_extension.h"

// May the volume hold the file? Not a disk, and not removable.
[[nodiscard]] BOOLEAN MayHoldConfig(PVOLUME_EXTENSION volume);
// All sixteen loaded offsets are known. Any IRQL.
[[nodiscard]] BOOLEAN IsConfigLocationComplete(PVOLUME_EXTENSION volume);
// A write of the file was seen at `offset`, `length` bytes: each whole sector takes the next empty slot; what
// finds none is reported and left. Takes SwapLock.
void SwapAddConfigLocation(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG length);
// Forgets what was captured, on every volume, before the file is written anew. Takes gVolumeListLock, and
// SwapLock.
void PostloadConfigPrepare();
// After that write: the first volume whose capture is complete saves it. Takes gVolumeListLock, then SwapLock.
void PostloadConfig();
// Stores the captured offsets. STATUS_INVALID_PARAMETER when they are not complete or the volume has no name;
// else the registry's status. Takes SwapLock.
[[nodiscard]] NTSTATUS SaveConfigLocation(PVOLUME_EXTENSION volume);
// STATUS_INVALID_PARAMETER, and the offsets as they were, when the registry does not have all sixteen.
[[nodiscard]] NTSTATUS LoadConfigLocation(PVOLUME_EXTENSION volume);
