// All transfers go to the device below the filter, so they reach the volume's own sectors whether
// it is protected or not.
#include "config/storage.h"
#include "config/config_location.h"
#include "config/parser.h"
#include "driver/record/sector_io.h"
#include "driver/record/volume_list.h"

namespace {

// Moves piece `index` of the image. Never past the image's end, whatever the sector size.
NTSTATUS TransferPiece(ULONG major, PVOLUME_EXTENSION volume, UCHAR* image, ULONG index, LONGLONG* offset) {
    const ULONG start = index * kConfigPieceBytes;
    const ULONG sector = volume->BytesPerSector;
    const ULONG length = sector < KVR_CONFIG_BYTES - start ? sector : KVR_CONFIG_BYTES - start;
    *offset = volume->PreloadConfigLocation[index];
    if (length == 0) return STATUS_DEVICE_NOT_READY;  // not started
    return TransferOnce(major, volume->Target, image + start, length, *offset);
}

NTSTATUS ReadPieces(PVOLUME_EXTENSION volume, UCHAR* image) {
    for (ULONG i = 0; i < kConfigPieces; ++i) {
        LONGLONG offset = 0;
        if (!NT_SUCCESS(TransferPiece(IRP_MJ_READ, volume, image, i, &offset)))
            return STATUS_INSUFFICIENT_RESOURCES;
        DbgPrint("Kvr!PreloadConfig: done, offset: %I64x\n", offset);
    }
    return STATUS_SUCCESS;
}

BOOLEAN HoldsConfig(PVOLUME_EXTENSION volume) {
    return MayHoldConfig(volume) && IsConfigLocationComplete(volume);
}

// Every piece is written, whatever becomes of the others; the first failure is the result.
NTSTATUS WritePiecesDirect(PVOLUME_EXTENSION volume, UCHAR* image) KVR_REQUIRES(gConfigWriteLock) {
    NTSTATUS result = STATUS_SUCCESS;
    for (ULONG i = 0; i < kConfigPieces; ++i) {
        LONGLONG offset = 0;
        const NTSTATUS status = TransferPiece(IRP_MJ_WRITE, volume, image, i, &offset);
        DbgPrint("Kvr!WriteConfigDirect: done, offset: %I64x\n", offset);
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
        LONGLONG offset = 0;
        const NTSTATUS status = TransferPiece(IRP_MJ_WRITE, volume, static_cast<UCHAR*>(buffer), i, &offset);
        DbgPrint("Kvr!PreloadConfigApply: done %x, offset: %I64x\n", status, offset);
        if (result == STATUS_SUCCESS) result = status;
    }
    return result;
}

void WriteBackConfig(PDEVICE_OBJECT device) {
    if (!gConfigDirty || !gConfigLoaded) return;
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
    const RecordHold volume = FindVolume(HoldsConfig);
    if (volume.Failed()) return STATUS_INSUFFICIENT_RESOURCES;
    FastMutexLock lock(gConfigWriteLock);
    return WritePiecesDirect(volume.Get(), static_cast<UCHAR*>(buffer));
}
