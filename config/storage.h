// Where the configuration text lives: the file kvr.cfg, its sixteen pieces in raw sectors, and the registry
// value that carries their offsets from one boot to the next. IRQL: PASSIVE_LEVEL.
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
extern std::atomic<HANDLE> gConfigFileHandle;      // kvr.cfg, held from the first open on
extern std::atomic<HANDLE> gDriverFileHandle;      // the driver's own file
extern FAST_MUTEX gConfigWriteLock;                // one direct write or write-back at a time
extern std::atomic<LONG> gConfigToolWrites;  // WriteConfig calls under way; changed under gConfigWriteLock

[[nodiscard]] NTSTATUS KvrConfigure(PDEVICE_OBJECT device);
[[nodiscard]] NTSTATUS PreloadConfig(PDEVICE_OBJECT device, PVOID buffer, ULONG* length);
[[nodiscard]] NTSTATUS PreloadConfigApply(PDEVICE_OBJECT device, PVOID buffer, ULONG* length);
// Writes what the parser changed back into the file's sectors, when there is something to write back, the
// volume holds the file and no text of the tool has taken its place. A failure is tried again by the next call.
void WriteBackConfig(PDEVICE_OBJECT device);
[[nodiscard]] NTSTATUS ReadConfig(PVOID buffer, ULONG* length);
[[nodiscard]] NTSTATUS WriteConfig(PVOID buffer, ULONG length);
[[nodiscard]] NTSTATUS WriteConfigDirect(PVOID buffer, ULONG length);
void SwapAddConfigLocation(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG length);
void PostloadConfigPrepare();
void PostloadConfig();
[[nodiscard]] NTSTATUS SaveConfigLocation(PVOLUME_EXTENSION volume);
[[nodiscard]] NTSTATUS LoadConfigLocation(PVOLUME_EXTENSION volume);
[[nodiscard]] BOOLEAN QueryConfigShareRead();
void LockConfig();
void LockDriverFile();
// A file system on a fixed medium: neither a disk nor removable.
[[nodiscard]] BOOLEAN MayHoldConfig(PVOLUME_EXTENSION volume);
// All sixteen offsets are known (none is 0).
[[nodiscard]] BOOLEAN IsConfigLocationComplete(PVOLUME_EXTENSION volume);
