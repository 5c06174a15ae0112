// Where the configuration's pieces lie: learned from the file system's own write of the file, kept in the
// registry under the volume's name, loaded when the volume starts.
#include "config/config_location.h"
#include "driver/record/registry.h"
#include "driver/record/volume_list.h"

namespace {

constexpr ULONG kLocationBytes = kConfigPieces * sizeof(LONGLONG);

// The registry value's name: the volume's name followed by "\kvr.CFG".
class LocationName {
public:
    [[nodiscard]] NTSTATUS Build(PVOLUME_EXTENSION volume) {
        m_name = {0, sizeof(m_buffer), m_buffer};
        if (volume->VolumeName.Length == 0) return STATUS_INVALID_PARAMETER;
        RtlCopyUnicodeString(&m_name, &volume->VolumeName);
        return RtlAppendUnicodeToString(&m_name, W("\\kvr.CFG"));
    }
    PUNICODE_STRING Get() { return &m_name; }

private:
    UNICODE_STRING m_name;
    WCHAR m_buffer[128];
};

// Copies the captured offsets; FALSE while they are not complete.
BOOLEAN CopyCaptured(PVOLUME_EXTENSION volume, LONGLONG (&location)[kConfigPieces]) {
    FastMutexLock lock(volume->SwapLock);
    BOOLEAN complete = TRUE;
    for (ULONG i = 0; i < kConfigPieces; ++i) {
        location[i] = volume->PostloadConfigLocation[i];
        if (location[i] == 0) complete = FALSE;
    }
    return complete;
}

BOOLEAN HasCapturedConfig(PVOLUME_EXTENSION volume) {
    LONGLONG location[kConfigPieces];
    return MayHoldConfig(volume) && CopyCaptured(volume, location);
}

// The first slot that is still empty, kConfigPieces when none is.
ULONG FirstEmptySlot(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    ULONG slot = 0;
    while (slot < kConfigPieces && volume->PostloadConfigLocation[slot] != 0) ++slot;
    return slot;
}

void ForgetCaptured(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    if (volume->PostloadConfigLocation[0] == 0) return;
    DbgPrint("Kvr!PostloadConfigPrepare: done, offset: %I64x %I64x %I64x %I64x ...\n",
             volume->PreloadConfigLocation[0].load(), volume->PreloadConfigLocation[1].load(),
             volume->PreloadConfigLocation[2].load(), volume->PreloadConfigLocation[3].load());
    for (LONGLONG& slot : volume->PostloadConfigLocation) slot = 0;
}

}  // namespace

BOOLEAN MayHoldConfig(PVOLUME_EXTENSION volume) {
    return !volume->IsDisk && volume->MediaType != RemovableMedia;
}

BOOLEAN IsConfigLocationComplete(PVOLUME_EXTENSION volume) {
    for (const std::atomic<LONGLONG>& offset : volume->PreloadConfigLocation)
        if (offset == 0) return FALSE;
    return TRUE;
}

void SwapAddConfigLocation(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG length) {
    const ULONG sector = volume->BytesPerSector;
    if (sector == 0) return;
    FastMutexLock lock(volume->SwapLock);
    for (ULONG taken = 0; length - taken >= sector; taken += sector) {
        const ULONG slot = FirstEmptySlot(volume);
        if (slot == kConfigPieces) {
            DbgPrint("Kvr!SwapAddConfigLocation oversize!\n");
            return;
        }
        volume->PostloadConfigLocation[slot] = offset + taken;
    }
}

void PostloadConfigPrepare() {
    FastMutexLock lock(gVolumeListLock);
    for (PVOLUME_EXTENSION volume : Volumes()) {
        if (MayHoldConfig(volume)) ForgetCaptured(volume);
    }
}

void PostloadConfig() {
    const RecordHold volume = FindVolume(HasCapturedConfig);
    if (volume.Failed()) return;
    LONGLONG location[kConfigPieces];
    CopyCaptured(volume.Get(), location);
    DbgPrint("Kvr!PostloadConfig: done, offset: %I64x %I64x %I64x %I64x ...\n", location[0], location[1],
             location[2], location[3]);
    KVR_DISCARD(SaveConfigLocation(volume.Get()),
                "without the value the next boot finds no configuration, as before");
}

NTSTATUS SaveConfigLocation(PVOLUME_EXTENSION volume) {
    LONGLONG location[kConfigPieces];
    LocationName name;
    if (!CopyCaptured(volume, location)) return STATUS_INVALID_PARAMETER;
    const NTSTATUS status = name.Build(volume);
    if (!NT_SUCCESS(status)) return status;
    return WriteDriverValue(name.Get(), location, sizeof(location), FALSE);
}

NTSTATUS LoadConfigLocation(PVOLUME_EXTENSION volume) {
    LocationName name;
    if (!NT_SUCCESS(name.Build(volume))) return STATUS_INVALID_PARAMETER;
    PoolPtr<UCHAR> data;
    ULONG length = 0;
    const NTSTATUS status = ReadDriverValue(name.Get(), &data, &length);
    if (!NT_SUCCESS(status) || length < kLocationBytes) return STATUS_INVALID_PARAMETER;
    for (ULONG i = 0; i < kConfigPieces; ++i) {
        LONGLONG offset = 0;
        RtlCopyMemory(&offset, data.Get() + i * sizeof(offset), sizeof(offset));
        volume->PreloadConfigLocation[i] = offset;
    }
    return STATUS_SUCCESS;
}
