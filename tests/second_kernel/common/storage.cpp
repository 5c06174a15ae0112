#include "tests/second_kernel/common/storage.h"
#include "tests/second_kernel/common/saved_map.h"

void RemoveStorage(Computer* computer) {
    const SWAP_CONFIG_REQUEST request = StorageRequest(DATA_VOLUME, 0);
    stage::CheckStatus(Ask(&computer->User, IOCTL_KVR_REMOVE_SWAP, &request, sizeof(request.VolumeName)).Status,
                       STATUS_SUCCESS, "the removal");
}

void CheckNoStorage(Computer* computer, LONG blocks) {
    const KVR_FIXED_VOLUME_STATUS status = FixedStatus(&computer->User, DATA_VOLUME);
    stage::Check(status.SwapStatus == 0 && status.SwapTotalBytes == 0, "no storage", status.SwapStatus,
                 static_cast<ULONGLONG>(status.SwapTotalBytes));
    for (const PlayedFile& file : computer->DataFiles.Table->Files)
        stage::Check(!file.Exists, "no file is left");
    ULONG location[2];
    stage::CheckEqual(ReadDriverValue(DATA_VOLUME, location, 0), 0, "no location in the registry");
    stage::CheckEqual(stage::WaitForDriverThreads(), 0, "threads that still run");
    stage::CheckEqual(static_cast<ULONGLONG>(stage::PoolBlocks()), static_cast<ULONGLONG>(blocks),
                      "pool blocks");
}
