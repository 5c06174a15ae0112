// Holding the storage files open, so that nobody reads, changes, moves or deletes them while the driver uses
// their sectors behind the file system's back.
#include "config/config_files.h"
#include "config/protected_volumes.h"
#include "driver/record/threads.h"
#include "swap/map_format.h"
#include "swap/provision.h"
#include "swap/provision_files.h"

namespace {

bool IsConfigFileKnown(PVOLUME_EXTENSION volume) {
    for (const std::atomic<LONGLONG>& offset : volume->PreloadConfigLocation)
        if (offset <= 0) return false;
    return true;
}

// The handle stays in `held`; a file that is held already is left alone.
NTSTATUS HoldFile(PVOLUME_EXTENSION volume, ULONG index, HANDLE* held) {
    if (*held) return STATUS_SUCCESS;
    KernelHandle file;
    const NTSTATUS status = HoldStorageFile(volume, index, &file);
    if (NT_SUCCESS(status)) *held = file.Release();
    return status;
}

// A protected volume stays so until the next boot, with swap that is overwritten in place under a map that is
// not saved any more. Where the next boot gives every change up anyway, the older map is as good as any: it is
// left, and protects that boot.
void GiveUpStorage(PVOLUME_EXTENSION volume) {
    ULONG usable = kSwapUsable;
    if (!volume->SwapState.compare_exchange_strong(usable, kSwapFilesNotHeld)) return;
    if (volume->IsProtected && !IsDroppedAtNextBoot(volume)) RetireSavedMap(volume);
}

// The status of the last open. A removal forgets MapLocation before it waits for StorageMutex to close the
// handles: an arm thread that comes later holds nothing, and says nothing about files that are gone.
NTSTATUS HoldStorageFiles(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(volume->StorageMutex);
    if (!volume->MapLocation) return STATUS_SUCCESS;
    volume->StorageToHold = FALSE;
    NTSTATUS status = HoldFile(volume, 0, &volume->SwapFileHandle);
    bool failed = !NT_SUCCESS(status);
    status = HoldFile(volume, kMapFileIndex, &volume->SwapMapFileHandle);
    failed = failed || !NT_SUCCESS(status);
    for (ULONG i = 0; i < kNumberedSwapFiles && volume->MapLocation; ++i)
        status = HoldFile(volume, i + 1, &volume->SwapFileHandles[i]);
    if (failed && volume->MapLocation) GiveUpStorage(volume);
    return status;
}

// Its reads of this volume must not find the map half loaded while StorageMutex is held.
void WaitForMapLoad(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(volume->MapLoadMutex);
}

}  // namespace

void StorageArmThread(PVOID context) {
    auto* volume = static_cast<PVOLUME_EXTENSION>(context);
    LockDriverFile();
    // What says that a volume is protected must not change either, wherever it lies.
    if (IsConfigFileKnown(volume) || volume->IsProtected) LockConfig();
    DbgPrint("Kvr!StorageArmThread(%wZ)...\n", &volume->VolumeName);
    WaitForMapLoad(volume);
    const NTSTATUS status = volume->MapLocation ? HoldStorageFiles(volume) : STATUS_SUCCESS;
    IoReleaseRemoveLock(&volume->RemoveLock, volume);
    KVR_DISCARD(PsTerminateSystemThread(status), "a system thread always ends here");
}

NTSTATUS StartArmThread(PVOLUME_EXTENSION volume) {
    RecordHold hold(volume);
    if (hold.Failed()) return STATUS_DELETE_PENDING;
    KernelHandle handle;
    const NTSTATUS status = CreateDriverThread(StorageArmThread, volume, &handle);
    if (!NT_SUCCESS(status)) return status;
    hold.Detach();  // the thread's now
    // The caller holds the record too, so removal, which closes the handle, finds it here.
    KernelHandle(volume->ArmThreadHandle.exchange(handle.Release())).Reset();
    return status;
}
