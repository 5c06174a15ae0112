#include "swap/provision.h"
#include "driver/record/threads.h"
#include "swap/map_boot.h"
#include "swap/map_format.h"
#include "swap/provision_files.h"

namespace {

constexpr SIZE_T kSwapFileTrial = 0x1800000;
constexpr SIZE_T kMapFileTrial = 0x1400000;
constexpr ULONG64 kMost32 = 0xFFFFFFFF;

// The steps of a removal as each thread tells them.
struct REMOVAL_MESSAGES {
    const char* location;
    const char* unlock;
    const char* mapFile;
    const char* swapFile;
    const char* done;
};
constexpr REMOVAL_MESSAGES kAllocMessages = {
    "Kvr!ConfigureSwapAllocThread::RegDelMapLocation()\n", "Kvr!ConfigureSwapAllocThread::Unlock()\n",
    "Kvr!ConfigureSwapAllocThread::Delete kvr.map\n", "Kvr!ConfigureSwapAllocThread::Delete kvr.swp\n",
    "Kvr!ConfigureSwapAllocThread::Delete done\n"};
constexpr REMOVAL_MESSAGES kRemoveMessages = {
    "Kvr!ConfigureSwapRemoveThread::RegDelMapLocation()\n", "Kvr!ConfigureSwapRemoveThread::Unlock()\n",
    "Kvr!ConfigureSwapRemoveThread::Delete kvr.map\n", "Kvr!ConfigureSwapRemoveThread::Delete kvr.swp\n",
    "Kvr!ConfigureSwapRemoveThread::Delete done\n"};

void CloseHeld(HANDLE* handle) {
    KernelHandle(std::exchange(*handle, nullptr)).Reset();
}

void DeleteNumberedFiles(PVOLUME_EXTENSION volume) {
    for (ULONG i = 1; i <= kNumberedSwapFiles; ++i) DeleteStorageFile(volume, i);
}

// A load of the map that is under way ends first: it would bring back what is being forgotten.
void ForgetMap(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(volume->MapLoadMutex);
    ForgetMapLocation(volume);
}

void ForgetStorage(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(volume->MapLoadMutex);
    ForgetMapLocation(volume);
    ResetSwapMaps(volume->FilterDevice);
    volume->SwapState = kSwapUsable;
    volume->MapReadFailed = FALSE;
    volume->MapRetireDue = FALSE;
}

// The location goes before the files: from then on no save of the map can reach sectors that are no longer the
// map file's, and no arm thread opens the files again.
void RemoveStorage(PVOLUME_EXTENSION volume, const REMOVAL_MESSAGES& messages) {
    // Protected before the next boot, the volume would have its file system's writes about the new files
    // redirected into them.
    if (!volume->IsProtected) volume->ProtectionDeferred = TRUE;
    KVR_DISCARD(RegDelMapLocation(volume), "there may have been none");
    DbgPrint("%s", messages.location);
    ForgetMap(volume);
    CloseHeldFiles(volume);
    DbgPrint("%s", messages.unlock);
    DeleteStorageFile(volume, kMapFileIndex);
    DbgPrint("%s", messages.mapFile);
    DeleteStorageFile(volume, 0);
    DbgPrint("%s", messages.swapFile);
    DeleteNumberedFiles(volume);
    ForgetStorage(volume);
    DbgPrint("%s", messages.done);
}

// What an allocation that was told to stop has made goes again.
void UndoAllocation(PVOLUME_EXTENSION volume) {
    KVR_DISCARD(RegDelMapLocation(volume), "there was none yet");
    ForgetMap(volume);
    DeleteStorageFile(volume, kMapFileIndex);
    DeleteStorageFile(volume, 0);
    DeleteNumberedFiles(volume);
    ResetSwapMaps(volume->FilterDevice);
}

// One swap file, as far as it goes. Its blocks count in `sectors` and `total`.
NTSTATUS FillSwapFile(BLOCK_WRITER& writer, HANDLE file, LONGLONG size, ULONG* sectors, LONGLONG* total) {
    NTSTATUS status = STATUS_SUCCESS;
    for (LONGLONG offset = 0; *total < size && writer.HasBuffer(); offset += writer.BlockBytes()) {
        if (gProvisionQuit) break;
        // No map could name more.
        if (*sectors > kMost32 - kSectorsPerBlock) break;
        if (!IsPoolAvailable(kSwapFileTrial)) {
            DbgPrint("Kvr!SwapStorageStartAllocation:: kvr.SWP cannot allocate NPagedPool, giving up\n");
            break;
        }
        status = writer.Write(file, offset);
        if (!NT_SUCCESS(status)) break;
        *sectors += kSectorsPerBlock;
        *total += writer.BlockBytes();
    }
    return status;
}

NTSTATUS FillMapFile(BLOCK_WRITER& writer, HANDLE file, ULONG64 target, ULONG64* written) {
    while (*written < target && writer.HasBuffer() && !gProvisionQuit) {
        if (!IsPoolAvailable(kMapFileTrial)) {
            DbgPrint("Kvr!SwapStorageStartAllocation:: kvr.MAP cannot allocate NPagedPool, giving up\n");
            break;
        }
        const NTSTATUS status = writer.Write(file, static_cast<LONGLONG>(*written));
        if (!NT_SUCCESS(status)) return status;
        *written += writer.BlockBytes();
    }
    return STATUS_SUCCESS;
}

// Room for one entry per swap sector, which is as many as a map can need.
NTSTATUS MakeMapFile(PVOLUME_EXTENSION volume, ULONG sectors) {
    BLOCK_WRITER writer(volume);
    writer.FillAsDamagedMap();
    KernelHandle file;
    NTSTATUS status = CreateStorageFile(volume, kMapFileIndex, &file);
    if (!NT_SUCCESS(status)) return status;
    const ULONG64 wanted = ULONG64{sectors} * sizeof(SWAP_MAP_ENTRY);
    const ULONG64 target = wanted < kMost32 ? wanted : kMost32;
    ULONG64 written = 0;
    status = FillMapFile(writer, file.Get(), target, &written);
    DbgPrint("Kvr!SwapStorageStartAllocation:: kvr.MAP written %d bytes\n", static_cast<ULONG>(written));
    return status;
}

// From here on the write path takes down where the storage files' blocks lie.
void BeginCapture(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(volume->MapLoadMutex);
    ResetSwapMaps(volume->FilterDevice);
    volume->SwapAllocating = TRUE;
    volume->SwapMapLoaded = FALSE;
}

NTSTATUS MakeStorage(PVOLUME_EXTENSION volume, LONGLONG size) {
    BeginCapture(volume);
    ULONG sectors = 0;
    NTSTATUS status = SwapStorageStartAllocation(volume, &sectors, &size);
    if (!NT_SUCCESS(status)) return status;
    DbgPrint("Kvr!SwapStorageStartAllocation:: kvr.SWP written %d blocks\n", sectors);
    status = MakeMapFile(volume, sectors);
    if (!NT_SUCCESS(status)) return status;
    if (gProvisionQuit) {
        UndoAllocation(volume);
        return status;
    }
    PostloadSwapMap(volume);
    return WriteSwapMap(volume->FilterDevice, FALSE);
}

NTSTATUS AllocateStorage(const SWAP_CONFIG_REQUEST* request) {
    {
        const RecordHold named = FindRequestedVolume(request);
        if (!named.Failed()) RemoveStorage(named.Get(), kAllocMessages);
    }
    if (request->SwapSize <= 0 || gProvisionQuit) return STATUS_SUCCESS;
    const RecordHold named = FindRequestedVolume(request);  // looked up again: the removal may have taken long
    PVOLUME_EXTENSION volume = named.Get();
    if (!volume || volume->MediaType != FixedMedia || volume->IsDisk) return STATUS_SUCCESS;
    return MakeStorage(volume, request->SwapSize);
}

}  // namespace

RecordHold FindRequestedVolume(const SWAP_CONFIG_REQUEST* request) {
    WCHAR characters[KVR_NAME_CHARS];
    USHORT count = 0;
    for (; count < KVR_NAME_CHARS && request->VolumeName[count] != 0; ++count)
        characters[count] = static_cast<WCHAR>(request->VolumeName[count]);
    const auto bytes = static_cast<USHORT>(count * sizeof(WCHAR));
    const UNICODE_STRING name = {bytes, bytes, characters};
    return FindVolumeByName(&name);
}

void CloseHeldFiles(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(volume->StorageMutex);
    CloseHeld(&volume->SwapMapFileHandle);
    CloseHeld(&volume->SwapFileHandle);
    for (HANDLE& handle : volume->SwapFileHandles) CloseHeld(&handle);
    volume->StorageToHold = TRUE;
}

void ConfigureSwapAllocThread(PVOID context) {
    EnterProvisioning();
    const NTSTATUS status =
        AllocateStorage(PoolPtr<SWAP_CONFIG_REQUEST>(static_cast<SWAP_CONFIG_REQUEST*>(context)).Get());
    LeaveProvisioning(status);
}

void ConfigureSwapRemoveThread(PVOID context) {
    EnterProvisioning();
    {
        const PoolPtr<SWAP_CONFIG_REQUEST> request(static_cast<SWAP_CONFIG_REQUEST*>(context));
        const RecordHold named = FindRequestedVolume(request.Get());
        if (!named.Failed()) RemoveStorage(named.Get(), kRemoveMessages);
    }
    LeaveProvisioning(STATUS_SUCCESS);
}

NTSTATUS SwapStorageStartAllocation(PVOLUME_EXTENSION volume, ULONG* sectors, const LONGLONG* size) {
    BLOCK_WRITER writer(volume);
    LONGLONG total = 0;
    *sectors = 0;
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG i = 0; i <= kNumberedSwapFiles; ++i) {
        KernelHandle file;
        status = CreateStorageFile(volume, i, &file);
        if (!NT_SUCCESS(status)) break;
        status = FillSwapFile(writer, file.Get(), *size, sectors, &total);
        if (status != STATUS_DISK_FULL) break;
    }
    return status;
}
