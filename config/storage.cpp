// The configuration in raw sectors: its load at boot, the write-back of what the parser changed, and the tool's
// direct write. All transfers go to the device below the filter, so they reach the volume's own sectors whether
// it is protected or not.
#include "config/storage.h"
#include "config/parser.h"
#include "driver/dispatch.h"
#include "platform/owners.h"
#include "swap/sector_io.h"

namespace {

// Moves piece `index` of the image. Never past the image's end, whatever the sector size.
NTSTATUS TransferPiece(ULONG major, PVOLUME_EXTENSION volume, UCHAR* image, ULONG index,
                       LARGE_INTEGER* offset) {
    const ULONG start = index * kConfigPieceBytes;
    const ULONG sector = volume->BytesPerSector;
    const ULONG length = sector < KVR_CONFIG_BYTES - start ? sector : KVR_CONFIG_BYTES - start;
    offset->QuadPart = volume->PreloadConfigLocation[index];
    if (length == 0) return STATUS_DEVICE_NOT_READY;  // not started
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb = {};
    return TransferSectors(major, volume->Target, image + start, length, offset, &iosb, &event);
}

NTSTATUS ReadPieces(PVOLUME_EXTENSION volume, UCHAR* image) {
    for (ULONG i = 0; i < kConfigPieces; ++i) {
        LARGE_INTEGER offset;
        if (!NT_SUCCESS(TransferPiece(IRP_MJ_READ, volume, image, i, &offset)))
            return STATUS_INSUFFICIENT_RESOURCES;
        DbgPrint("Kvr!PreloadConfig: done, offset: %I64x\n", offset.QuadPart);
    }
    return STATUS_SUCCESS;
}

// The first record that holds a configuration, referenced (tag: the record), or null.
PVOLUME_EXTENSION ReferenceConfigVolume() {
    FastMutexLock lock(gVolumeListLock);
    for (PLIST_ENTRY link = gVolumeList.Flink; link != &gVolumeList; link = link->Flink) {
        PVOLUME_EXTENSION volume = CONTAINING_RECORD(link, VOLUME_EXTENSION, ListEntry);
        if (volume->IsDisk || volume->MediaType == RemovableMedia || !IsConfigLocationComplete(volume))
            continue;
        if (NT_SUCCESS(IoAcquireRemoveLock(&volume->RemoveLock, volume))) return volume;
    }
    return nullptr;
}

// Every piece is written, whatever becomes of the others; the first failure is the result.
NTSTATUS WritePiecesDirect(PVOLUME_EXTENSION volume, UCHAR* image) KVR_REQUIRES(gConfigWriteLock) {
    NTSTATUS result = STATUS_SUCCESS;
    for (ULONG i = 0; i < kConfigPieces; ++i) {
        LARGE_INTEGER offset;
        const NTSTATUS status = TransferPiece(IRP_MJ_WRITE, volume, image, i, &offset);
        DbgPrint("Kvr!WriteConfigDirect: done, offset: %I64x\n", offset.QuadPart);
        if (result == STATUS_SUCCESS) result = status;
    }
    return result;
}

}  // namespace

NTSTATUS KvrConfigure(PDEVICE_OBJECT device) {
    DbgPrint("Kvr!KvrConfigure\n");
    ULONG length = KVR_CONFIG_BYTES;
    const NTSTATUS status = PreloadConfig(device, gConfigBuffer, &length);
    if (!NT_SUCCESS(status)) return status;
    if (!gConfigLoaded && !gConfigWrittenByTool) {
        gConfigDirty = FALSE;
        ParseConfig(reinterpret_cast<PWCHAR>(gConfigBuffer), length);
    }
    return STATUS_SUCCESS;
}

NTSTATUS PreloadConfig(PDEVICE_OBJECT device, PVOID buffer, ULONG* length) {
    DbgPrint("Kvr!PreloadConfig\n");
    PVOLUME_EXTENSION volume = VolumeOf(device);
    PoolPtr<UCHAR> scratch = NewBuffer(KVR_CONFIG_BYTES);
    if (!scratch || !IsConfigLocationComplete(volume)) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(scratch.Get(), KVR_CONFIG_BYTES);
    const NTSTATUS status = ReadPieces(volume, scratch.Get());
    if (!NT_SUCCESS(status)) return status;
    if (!gConfigWrittenByTool) RtlCopyMemory(buffer, scratch.Get(), KVR_CONFIG_BYTES);
    *length = KVR_CONFIG_BYTES;
    return STATUS_SUCCESS;
}

NTSTATUS PreloadConfigApply(PDEVICE_OBJECT device, PVOID buffer, ULONG* length) {
    DbgPrint("Kvr!PreloadConfigApply\n");
    PVOLUME_EXTENSION volume = VolumeOf(device);
    if (!IsConfigLocationComplete(volume)) return STATUS_INSUFFICIENT_RESOURCES;
    *length = KVR_CONFIG_BYTES;
    NTSTATUS result = STATUS_SUCCESS;
    for (ULONG i = 0; i < kConfigPieces; ++i) {
        LARGE_INTEGER offset;
        const NTSTATUS status = TransferPiece(IRP_MJ_WRITE, volume, static_cast<UCHAR*>(buffer), i, &offset);
        DbgPrint("Kvr!PreloadConfigApply: done %x, offset: %I64x\n", status, offset.QuadPart);
        if (result == STATUS_SUCCESS) result = status;
    }
    return result;
}

void WriteBackConfig(PDEVICE_OBJECT device) {
    if (!gConfigDirty || !gConfigLoaded || gConfigWrittenByTool) return;
    if (!IsConfigLocationComplete(VolumeOf(device))) return;
    FastMutexLock lock(gConfigWriteLock);
    // Asked again under the lock: another request may have done it, and the tool's text wins over the buffer
    // from the moment its writing begins.
    if (!gConfigDirty || gConfigWrittenByTool || gConfigToolWrites != 0) return;
    ULONG length = KVR_CONFIG_BYTES;
    if (PreloadConfigApply(device, gConfigBuffer, &length) == STATUS_SUCCESS) gConfigDirty = FALSE;
}

NTSTATUS WriteConfigDirect(PVOID buffer, ULONG length) {
    if (length < KVR_CONFIG_BYTES) return STATUS_INVALID_PARAMETER;
    PVOLUME_EXTENSION volume = ReferenceConfigVolume();
    if (!volume) return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = STATUS_SUCCESS;
    {
        FastMutexLock lock(gConfigWriteLock);
        status = WritePiecesDirect(volume, static_cast<UCHAR*>(buffer));
    }
    IoReleaseRemoveLock(&volume->RemoveLock, volume);
    return status;
}
