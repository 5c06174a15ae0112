#include "lock_ranks.h"
#include "config/storage.h"
#include "control/provision_control.h"
#include "swap/swap_file.h"
#include "platform/host/sync/sync.h"
#include "driver/record/threads.h"
#include "driver/record/volume_list.h"

namespace support {

void RankGlobalLocks() {
    host::DeclareLockRank(&gProvisionMutex, 20, "gProvisionMutex");
    host::DeclareLockRank(&gSwapFileMutex, 50, "gSwapFileMutex");
    host::DeclareLockRank(&gVolumeListLock, 60, "gVolumeListLock");
    host::DeclareLockRank(&gConfigWriteLock, 70, "gConfigWriteLock");
}

void RankRecordLocks(PVOLUME_EXTENSION volume) {
    host::SetLockRank(&volume->UsageMutex, 5, "UsageMutex");
    host::SetLockRank(&volume->MapLoadMutex, 10, "MapLoadMutex");
    host::SetLockRank(&volume->StorageMutex, 30, "StorageMutex");
    host::SetLockRank(&volume->WriteOrderLock, 45, "a place among the writes");
    host::SetLockRank(&volume->SwapLock, 80, "SwapLock");
}

void RankStorageLocks() {
    for (SWAP_FILE* file = gSwapFileList; file; file = file->pNext) {
        host::SetLockRank(&file->FlushLock, 40, "FlushLock");
        host::SetLockRank(&file->CacheLock, 80, "CacheLock");
    }
}

}  // namespace support
