// The storage files: their names, and making, filling, holding and deleting them through the file system; for
// swap/ only. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/owners.h"
#include "swap/swap.h"

// Which of a volume's files: 0 is kvr.SWP, 1 to kNumberedSwapFiles are kvr.SWP.01 and so on.
inline constexpr ULONG kMapFileIndex = kNumberedSwapFiles + 1;

// A file's path. Not movable: the counted string points into it.
struct STORAGE_PATH {
    WCHAR characters[128];
    UNICODE_STRING text;
};
[[nodiscard]] NTSTATUS MakeStoragePath(PVOLUME_EXTENSION volume, ULONG index, STORAGE_PATH* path);

// A new, empty file, written unbuffered so that each write reaches the filter as one write of the file's data.
// It is neither compressed nor encrypted, whatever its folder says; STATUS_NOT_SUPPORTED where that cannot be
// had.
[[nodiscard]] NTSTATUS CreateStorageFile(PVOLUME_EXTENSION volume, ULONG index, KernelHandle* file);
// An existing file, open to nobody else.
[[nodiscard]] NTSTATUS HoldStorageFile(PVOLUME_EXTENSION volume, ULONG index, KernelHandle* file);
// A file that is missing is as good as deleted.
void DeleteStorageFile(PVOLUME_EXTENSION volume, ULONG index);

// What both kinds of file are filled with.
class BLOCK_WRITER {
public:
    explicit BLOCK_WRITER(PVOLUME_EXTENSION volume);
    [[nodiscard]] ULONG BlockBytes() const { return m_bytes; }
    // From now on the blocks read as a damaged map: one whose first save was cut short must not be taken for an
    // empty one, with which the volume would be protected and have no space for a single write.
    void FillAsDamagedMap();
    [[nodiscard]] bool HasBuffer() const { return static_cast<bool>(m_buffer); }
    // One block at `offset` of the file; prints a failure.
    [[nodiscard]] NTSTATUS Write(HANDLE file, LONGLONG offset);

private:
    ULONG m_bytes;
    KernelHandle m_eventHandle;
    PKEVENT m_lowPool;
    PoolPtr<UCHAR> m_buffer;
};

// Can `bytes` of pool be had in one piece now? Provisioning stops early rather than leave the system without.
[[nodiscard]] bool IsPoolAvailable(SIZE_T bytes);
