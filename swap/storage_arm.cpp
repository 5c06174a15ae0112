// Holding the storage files open, so that nobody reads, changes, moves or deletes them while the driver uses
// their sectors behind the file system's back.
#include "config/config_files.h"
#include "config/protected_volumes.h"
#include "driver/record/hardening.h"
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

// What one try came to.
struct HOLDING {
    NTSTATUS Last;  // of the last open
    bool Failed;    // kvr.SWP or kvr.MAP is not held
    bool MayPass;   // a file that is not held may be so at another try
};

// What is missing stays so. Anything else may be a read that the disk fails once, want of memory, or somebody
// who looks at the file.
bool MayPass(NTSTATUS status) {
    return !NT_SUCCESS(status) && status != STATUS_OBJECT_NAME_NOT_FOUND &&
           status != STATUS_OBJECT_PATH_NOT_FOUND;
}

void Hold(PVOLUME_EXTENSION volume, ULONG index, HANDLE* held, HOLDING& holding) {
    holding.Last = HoldFile(volume, index, held);
    if (MayPass(holding.Last)) holding.MayPass = true;
}

// A removal forgets MapLocation before it waits for StorageMutex to close the handles: an arm thread that comes
// later holds nothing, and says nothing about files that are gone.
HOLDING TryToHold(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->StorageMutex) {
    HOLDING holding{};
    if (!volume->MapLocation) return holding;
    volume->StorageToHold = FALSE;
    Hold(volume, 0, &volume->SwapFileHandle, holding);
    holding.Failed = !NT_SUCCESS(holding.Last);
    Hold(volume, kMapFileIndex, &volume->SwapMapFileHandle, holding);
    holding.Failed = holding.Failed || !NT_SUCCESS(holding.Last);
    for (ULONG i = 0; i < kNumberedSwapFiles && volume->MapLocation; ++i)
        Hold(volume, i + 1, &volume->SwapFileHandles[i], holding);
    return holding;
}

// A protected volume stays so until the next boot. Under gHardening, where its changes are kept its writes are
// refused from now on, and the map goes on being saved: it is true, and the next boot finds all that is kept.
// Otherwise its swap is overwritten in place under a map that is not saved any more. Where the next boot gives
// every change up anyway, the older map is as good as any: it is left, and protects that boot.
void GiveUpStorage(PVOLUME_EXTENSION volume) {
    ULONG usable = kSwapUsable;
    if (!volume->SwapState.compare_exchange_strong(usable, kSwapFilesNotHeld)) return;
    if (gHardening)
        KVR_DISCARD(WriteSwapMap(volume->FilterDevice, TRUE), "a save that fails is tried again");
    else if (volume->IsProtected && !IsDroppedAtNextBoot(volume))
        RetireSavedMap(volume);
}

// Under gHardening state 5 takes more than a passing failure. Removals need not wait for the tries to end.
constexpr ULONG kTries = 5;
constexpr LONGLONG kBetweenTries = 200 * 10000;  // 100 ns

void PauseBetweenTries() {
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    LARGE_INTEGER time;
    time.QuadPart = -kBetweenTries;
    KVR_DISCARD(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &time), "nobody sets it");
}

// The status of the last open.
NTSTATUS HoldStorageFiles(PVOLUME_EXTENSION volume) {
    for (ULONG left = gHardening ? kTries : 1;; PauseBetweenTries()) {
        KernelMutexLock lock(volume->StorageMutex);
        const HOLDING holding = TryToHold(volume);
        if (holding.MayPass && --left != 0) continue;
        if (holding.Failed && volume->MapLocation) GiveUpStorage(volume);
        return holding.Last;
    }
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
