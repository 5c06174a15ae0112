// Work on a protected data volume, and what must come of it: a model in media 2 to 4 knows what the volume's
// first bytes read as and which of their sectors are redirected; the volume's own sectors are ones that
// no redirected write may touch. Both outlive boots.
#pragma once
#include "tests/second_kernel/common/computer.h"

inline constexpr ULONG kSlices = 4;  // threads at once, each on bytes of its own
inline constexpr ULONG kSliceBytes = kMiB;
inline constexpr ULONG kSharedBytes = 64 * kKiB;  // behind the slices; all threads write them
inline constexpr ULONG kWorkBytes = kSlices * kSliceBytes + kSharedBytes;

// The first boot: fills the volume's own sectors, begins the model, writes the configuration and makes storage.
void Install(Computer* computer, const WCHAR* configuration, LONGLONG storage);
// Takes it that nothing is redirected: the model reads as the volume's own sectors.
void ForgetModel(Computer* computer);

// Random writes and reads by several threads at once, each read checked, in the course of which the computer
// sleeps for a moment. `seed` makes the work another one.
void WorkTogether(Computer* computer, ULONG seed);
// One write, in the model as well.
void WriteWork(Computer* computer, LONGLONG offset, ULONG length, ULONG seed);

// Writes of every kind one after the other from there on, overlapping: files' data, what the memory manager
// writes, metadata. In the model as well; they end within 128 KiB.
void WriteEveryKind(Computer* computer, LONGLONG offset, ULONG seed);

// Everything reads through the stack as the model says.
void CheckThroughStack(Computer* computer);
// The volume's own sectors are as OwnSectors() says.
void CheckOwnSectors(Computer* computer);
// Bytes that the model knows as redirected.
[[nodiscard]] ULONGLONG RedirectedBytes(Computer* computer);
// The volume's record: protected by a section of its own, with storage of that size, used as the model says.
void CheckProtected(Computer* computer, LONGLONG storage);
// After a shutdown: the saved map says what the model says, and the driver holds no pool blocks but those of
// the map and of what lives as long as the driver.
void CheckSaved(Computer* computer);
// After the driver's threads have ended: the storage files are open to nobody else.
void CheckHeld(Computer* computer);

[[nodiscard]] PUCHAR OwnSectors();         // kRegion, as the first boot filled them
[[nodiscard]] PUCHAR Model();              // kWorkBytes
[[nodiscard]] PUCHAR RedirectedSectors();  // a byte for each sector of the work, 1: redirected
