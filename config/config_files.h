// kvr.cfg through the file system, for the control tool, and the files that are held open so that no other
// software changes them. IRQL: PASSIVE_LEVEL, with no lock held: the file system's requests come back to this
// driver.
#pragma once
#include <atomic>
#include "platform/kernel.h"

extern std::atomic<HANDLE> gConfigFileHandle;  // kvr.cfg, held from the first open on
extern std::atomic<HANDLE> gDriverFileHandle;  // the driver's own file

// Reads from the file's start; `length` is the buffer's, then what was read. STATUS_NO_SUCH_FILE when it cannot
// be opened, STATUS_END_OF_FILE and 0 when it is empty, STATUS_UNSUCCESSFUL for another failure.
[[nodiscard]] NTSTATUS ReadConfig(PVOID buffer, ULONG* length);
// Replaces the text: in place where its sectors are known, else through the file system, which shows where they
// are. With success it is the text that counts, and nothing is written back over it. STATUS_NO_SUCH_FILE when
// the file can be neither opened nor made, STATUS_UNSUCCESSFUL when it cannot be written. Takes
// gConfigWriteLock for moments.
[[nodiscard]] NTSTATUS WriteConfig(PVOID buffer, ULONG length);
// The registry's ConfigShareRead: others may read kvr.cfg, and the driver's own file is not held. FALSE without
// it.
[[nodiscard]] BOOLEAN QueryConfigShareRead();
// Each holds its file from now on; a file that cannot be opened stays open to others.
void LockConfig();
void LockDriverFile();
