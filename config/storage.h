// The configuration's text in raw sectors: its load at boot, the write-back of what the parser changed, and the
// tool's direct write. A volume that holds the file knows its sixteen pieces by PreloadConfigLocation
// (config_location.h). IRQL of everything here: PASSIVE_LEVEL.
#pragma once
#include "driver/record/volume_extension.h"
#include "formats/kvr_ioctl.h"

inline constexpr ULONG kConfigPieceBytes = 512;
static_assert(kConfigPieces * kConfigPieceBytes == KVR_CONFIG_BYTES);

extern UCHAR gConfigBuffer[KVR_CONFIG_BYTES];      // the text loaded at boot
extern std::atomic<BOOLEAN> gConfigLoaded;         // loaded and parsed
extern std::atomic<BOOLEAN> gConfigDirty;          // must be written back
extern std::atomic<LONG> gConfigureBusy;           // one load at a time
extern std::atomic<BOOLEAN> gConfigWrittenByTool;  // in this boot
extern FAST_MUTEX gConfigWriteLock;                // one direct write or write-back at a time
extern std::atomic<LONG> gConfigToolWrites;  // WriteConfig calls under way; changed under gConfigWriteLock

// The boot load from the volume of `device`: reads the text into gConfigBuffer and, unless it was loaded before
// or the tool has written another, parses it. One caller at a time. STATUS_INSUFFICIENT_RESOURCES: nothing was
// parsed.
[[nodiscard]] NTSTATUS KvrConfigure(PDEVICE_OBJECT device);
// Reads the pieces into `buffer` (KVR_CONFIG_BYTES; left alone when the tool has written a text) and gives that
// length. STATUS_INSUFFICIENT_RESOURCES, and `buffer` as it was, for a volume without the file, for want of
// memory and for a piece that cannot be read.
[[nodiscard]] NTSTATUS PreloadConfig(PDEVICE_OBJECT device, PVOID buffer, ULONG* length);
// Writes all pieces of `buffer` (KVR_CONFIG_BYTES) in place, whatever becomes of one; the first failure is the
// result. STATUS_INSUFFICIENT_RESOURCES for a volume without the file. The caller holds gConfigWriteLock.
[[nodiscard]] NTSTATUS PreloadConfigApply(PDEVICE_OBJECT device, PVOID buffer, ULONG* length)
    KVR_REQUIRES(gConfigWriteLock);
// Writes what the parser changed back into the file's sectors, when there is something to write back, the
// volume holds the file and no text of the tool has taken its place. A failure is tried again by the next call.
// Takes gConfigWriteLock.
void WriteBackConfig(PDEVICE_OBJECT device);
// Writes `buffer` in place on the first volume that holds the file. STATUS_INVALID_PARAMETER for less than
// KVR_CONFIG_BYTES, STATUS_INSUFFICIENT_RESOURCES when there is no such volume; else the first failure of a
// piece. Takes gVolumeListLock and gConfigWriteLock, one after the other.
[[nodiscard]] NTSTATUS WriteConfigDirect(PVOID buffer, ULONG length);
