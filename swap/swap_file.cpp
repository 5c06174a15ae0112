#include "swap/swap_file.h"
#include "driver/record/names.h"

namespace {

// Does the volume keep its swap on itself, by the name of the storage?
BOOLEAN IsOwnStorage(SWAP_FILE* swapFile, PVOLUME_EXTENSION volume) {
    return CompareNames(&swapFile->DeviceName, &volume->VolumeName, TRUE) == 0;
}

// Under SwapLock, so that no change of the free space falls between the copy and the attachment.
void PublishAttachment(SWAP_FILE* swapFile, PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    volume->SwapFile = swapFile;
    MirrorFreeBytes(volume);
}

// Names the record that holds the storage while none is known. A volume that names itself is its own holder,
// whatever other record bears the same name; any other one is held.
RecordHold ResolveHolder(SWAP_FILE* swapFile, PCUNICODE_STRING name, PVOLUME_EXTENSION volume) {
    if (CompareNames(name, &volume->VolumeName, TRUE) == 0 && IsVolumeInList(volume)) {
        swapFile->SwapVolume = volume;
        return {};
    }
    RecordHold holder = FindVolumeByName(name);
    swapFile->SwapVolume = holder.Get();
    if (!holder.Failed() && holder.Get()->SwapFile == swapFile) PublishAttachment(swapFile, holder.Get());
    return holder;
}

void TraceGeometry(PVOLUME_EXTENSION volume) {
    DbgPrint("Kvr!\tDRIVE_GEOMETRY:\n");
    DbgPrint("Kvr!\tMediaType:         %d\n", volume->MediaType.load());
    DbgPrint("Kvr!\tBytesPerSector:    %d\n", volume->BytesPerSector.load());
    DbgPrint("Kvr!\tCylinders:         %I64u\n", volume->Cylinders.QuadPart);
    DbgPrint("Kvr!\tSectorsPerTrack:   %d\n", volume->SectorsPerTrack);
    DbgPrint("Kvr!\tTracksPerCylinder: %d\n", volume->TracksPerCylinder);
}

void InitializeSwapFile(SWAP_FILE* swapFile, PCUNICODE_STRING name) KVR_NO_ANALYSIS {
    KeInitializeMutex(&swapFile->CacheLock, 0);
    KeInitializeMutex(&swapFile->FlushLock, 0);
    InitializeListHead(&swapFile->CacheList);
    swapFile->ulRefCount = 1;
    swapFile->DeviceName = {0, sizeof(swapFile->DeviceNameBuffer), swapFile->DeviceNameBuffer};
    RtlCopyUnicodeString(&swapFile->DeviceName, name);
}

// Makes the object of that name, attached once for the requesting volume, and attaches the volume that holds
// the storage to it as well when that is another one. gSwapFileMutex is held.
NTSTATUS CreateSwapFile(PCUNICODE_STRING name, PVOLUME_EXTENSION volume, SWAP_FILE** object) {
    DbgPrint("Kvr!CreateSwapFile begin\n");
    TraceGeometry(volume);
    SWAP_FILE* swapFile = NewRecord<SWAP_FILE>().Release();
    *object = swapFile;
    if (!swapFile) {
        DbgPrint("Kvr!CreateSwapFile [%d] STATUS_INSUFFICIENT_RESOURCES\n", __LINE__);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    InitializeSwapFile(swapFile, name);
    const RecordHold holder = ResolveHolder(swapFile, name, volume);
    if (!holder.Failed() && !holder.Get()->SwapFile) {
        ++swapFile->ulRefCount;
        PublishAttachment(swapFile, holder.Get());
    }
    DbgPrint("Kvr!CreateSwapFile: DeviceName: %wZ\n", name);
    return STATUS_SUCCESS;
}

SWAP_FILE* FindSwapFile(PCUNICODE_STRING name) {
    SWAP_FILE* swapFile = gSwapFileList;
    while (swapFile && RtlCompareUnicodeString(&swapFile->DeviceName, name, TRUE) != 0)
        swapFile = swapFile->pNext;
    return swapFile;
}

void AppendSwapFile(SWAP_FILE* swapFile) {
    if (!gSwapFileList) {
        gSwapFileList = swapFile;
        return;
    }
    SWAP_FILE* tail = gSwapFileList;
    while (tail->pNext) tail = tail->pNext;
    tail->pNext = swapFile;
    swapFile->pPrevious = tail;
}

}  // namespace

NTSTATUS GetSwapFile(PCUNICODE_STRING name, PVOLUME_EXTENSION volume) {
    DbgPrint("Kvr!GetSwapFile\n");
    KernelMutexLock lock(gSwapFileMutex);
    if (volume->SwapFile) return STATUS_SUCCESS;
    SWAP_FILE* swapFile = FindSwapFile(name);
    if (swapFile) {
        ++swapFile->ulRefCount;
        if (!swapFile->SwapVolume) ResolveHolder(swapFile, name, volume).Release();
    } else {
        const NTSTATUS status = CreateSwapFile(name, volume, &swapFile);
        if (!NT_SUCCESS(status)) return status;
        AppendSwapFile(swapFile);
    }
    PublishAttachment(swapFile, volume);
    return STATUS_SUCCESS;
}

NTSTATUS DetachFromSwap(PVOLUME_EXTENSION volume) {
    DbgPrint("Kvr!DetachFromSwap\n");
    SWAP_FILE* swapFile = volume->SwapFile;
    if (swapFile && --swapFile->ulRefCount == 0) volume->SwapFile = nullptr;
    return STATUS_SUCCESS;
}

void ForgetSwapVolume(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(gSwapFileMutex);
    for (SWAP_FILE* swapFile = gSwapFileList; swapFile; swapFile = swapFile->pNext) {
        if (swapFile->SwapVolume != volume) continue;
        swapFile->SwapVolume = nullptr;
        swapFile->ulFreeBytes = 0;  // no space is known until the storage's volume is back
    }
}

void MirrorFreeBytes(PVOLUME_EXTENSION volume) {
    constexpr ULONG most = 0xFFFFFFFF;
    SWAP_FILE* swapFile = volume->SwapFile;
    if (!swapFile || swapFile->SwapVolume != volume) return;
    const ULONG64 free = volume->SwapFreeBytes;
    swapFile->ulFreeBytes = free < most ? static_cast<ULONG>(free) : most;
}

void SwapDevice::Find(PVOLUME_EXTENSION volume) {
    SWAP_FILE* swapFile = volume->SwapFile;
    if (!swapFile) return;
    if (swapFile->SwapVolume == volume) {
        m_device = volume->Target;
        return;
    }
    KernelMutexLock lock(gSwapFileMutex);
    PVOLUME_EXTENSION holder = swapFile->SwapVolume;
    if (!holder) {
        m_held = ResolveHolder(swapFile, &swapFile->DeviceName, volume);
        holder = swapFile->SwapVolume;
        if (holder == volume) PublishAttachment(swapFile, volume);
    } else {
        // Another record of this volume's own name is not this volume: the swap's offsets mean nothing there.
        if (IsOwnStorage(swapFile, volume)) return;
        m_held = RecordHold(holder);
        if (m_held.Failed()) return;
    }
    if (holder) m_device = holder->Target;
}

PDEVICE_OBJECT SwapDevice::Of(PVOLUME_EXTENSION volume) {
    if (!m_known) Find(volume);
    m_known = true;
    return m_device;
}

void SwapDevice::Release() {
    m_held.Release();
    m_device = nullptr;
    m_known = false;
}
