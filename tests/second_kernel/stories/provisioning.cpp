// Storage is made by the driver's own threads, through a file system that the story plays, and removed again.
#include <initializer_list>
#include "tests/second_kernel/common/computer.h"
#include "tests/second_kernel/common/saved_map.h"
#include "tests/second_kernel/stories/list.h"

namespace {

constexpr LONGLONG kStorage = 12 * kMiB;
constexpr ULONG kProvisioning = 1;
constexpr ULONG kPresent = 2;

const ComputerOptions kOptions = {.DataBytes = 40 * kMiB, .PieceBytes = 256 * kKiB, .GapBytes = 64 * kKiB};

bool WaitFor(PRKEVENT event) {
    LARGE_INTEGER time;
    time.QuadPart = -30 * 10'000'000LL;
    return stage::CheckStatus(KeWaitForSingleObject(event, Executive, KernelMode, FALSE, &time), STATUS_SUCCESS,
                              "the driver's thread writes a file");
}

void SeeProgress(Computer* computer) {
    stage::Step("progress");
    LONGLONG last = FixedStatus(&computer->User, DATA_VOLUME).SwapTotalBytes;
    stage::CheckEqual(last, 0, "nothing is written yet");
    for (int i = 0; i < 3; ++i) {
        KeClearEvent(&computer->DataFiles->Arrived);
        computer->DataFiles->LetOneThrough();
        if (!WaitFor(&computer->DataFiles->Arrived)) return;
        const LONGLONG now = FixedStatus(&computer->User, DATA_VOLUME).SwapTotalBytes;
        stage::CheckEqual(now - last, kMiB, "one more block");
        last = now;
    }
}

// What the driver knows, what the registry says and what the medium holds are the same storage.
void CheckStorage(Computer* computer) {
    stage::Step("the storage that was made");
    const KVR_FIXED_VOLUME_STATUS status = FixedStatus(&computer->User, DATA_VOLUME);
    stage::CheckEqual(status.SwapStatus, kPresent, "storage is present");
    stage::CheckEqual(status.SwapTotalBytes, kStorage, "its size");
    stage::CheckEqual(status.SwapUsedBytes, 0, "nothing of it is used");
    const SavedMap map = ReadSavedMap(computer);
    const std::vector<MAP_LOCATION_ENTRY> runs = ReadMapLocation();
    stage::CheckEqual(map.FreeBytes, kStorage, "free space in the saved map");
    stage::CheckEqual(map.Swapped, 0, "redirections in the saved map");
    const PlayedFile* file = computer->DataFiles->Find(W("\\kvr.MAP"));
    if (!stage::Check(file != nullptr, "the map file")) return;
    ULONGLONG bytes = 0;
    for (const MAP_LOCATION_ENTRY& run : runs) bytes += run.ulLength;
    stage::CheckEqual(bytes, file->Size, "the map file's runs in the registry");
    stage::CheckEqual(runs[0].ulSector, file->Extents[0].Offset / 512, "where the map file begins");
    stage::Check(runs.size() > 1, "it lies in pieces");
}

// The largest file that is made may not hold it all, so the storage continues in numbered ones.
void Provision(Computer* computer) {
    stage::Step("make storage");
    computer->DataFiles->FileLimit = 5 * kMiB;
    computer->DataFiles->Gate();
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, kStorage), STATUS_SUCCESS, "the request");
    if (!WaitFor(&computer->DataFiles->Arrived)) return;
    SeeProgress(computer);
    computer->DataFiles->OpenGate();
    (void)WaitForStorage(&computer->User, DATA_VOLUME);
    computer->DataFiles->FileLimit = 0;
    CheckStorage(computer);
    for (const WCHAR* name : {W("\\kvr.SWP"), W("\\kvr.SWP.01"), W("\\kvr.SWP.02")})
        stage::Check(computer->DataFiles->Find(name) != nullptr, "a storage file");
}

void StopInTheMiddle(Computer* computer) {
    stage::Step("stop in the middle");
    computer->DataFiles->Gate();
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, 2 * kStorage), STATUS_SUCCESS, "the request");
    if (!WaitFor(&computer->DataFiles->Arrived)) return;
    computer->DataFiles->OpenGate();
    stage::CheckStatus(Ask(&computer->User, IOCTL_KVR_STOP_SWAP_THREAD).status, STATUS_SUCCESS, "the stop");
    const KVR_FIXED_VOLUME_STATUS status = FixedStatus(&computer->User, DATA_VOLUME);
    stage::Check(status.SwapStatus != kProvisioning, "no thread is left when it returns");
    RemoveStorage(computer, 0);
}

// The storage lies on the volume as it was written, whatever the folder's files inherit, or there is none.
void ProvisionInMarkedFolder(Computer* computer) {
    stage::Step("storage in a folder whose files are compressed");
    computer->DataFiles->FolderMarks = FILE_ATTRIBUTE_COMPRESSED;
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, kStorage), STATUS_SUCCESS, "the request");
    (void)WaitForStorage(&computer->User, DATA_VOLUME);
    CheckStorage(computer);
    stage::Step("storage in a folder whose files are encrypted as well");
    computer->DataFiles->FolderMarks |= FILE_ATTRIBUTE_ENCRYPTED;
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, kStorage), STATUS_SUCCESS, "the request");
    const KVR_FIXED_VOLUME_STATUS status = WaitForStorage(&computer->User, DATA_VOLUME);
    stage::CheckEqual(status.SwapTotalBytes, 0, "no storage");
    stage::CheckEqual(stage::TimesSaid("the storage would be compressed or encrypted"), 1, "why there is none");
    computer->DataFiles->FolderMarks = 0;
}

void Play(Computer* computer) {
    stage::CheckEqual(stage::PoolBlocks(), 0, "pool blocks of an idle driver");
    StopInTheMiddle(computer);
    Provision(computer);
}

// The storage of the earlier boot is found again, as it was saved, when a configuration asks for it.
void PlayAgain(Computer* computer) {
    stage::Step("the storage of the earlier boot is replaced");
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, kStorage), STATUS_SUCCESS, "the request");
    (void)WaitForStorage(&computer->User, DATA_VOLUME);
    CheckStorage(computer);
    ProvisionInMarkedFolder(computer);
    stage::Check(computer->DataFiles->Find(W("\\kvr.SWP.01")) == nullptr, "the numbered files are gone");
    stage::Step("remove the storage");
    RemoveStorage(computer, 0);
}

}  // namespace

const Story kProvisioningStory = {"provisioning",
                                  "storage made, stopped and removed by the driver's threads",
                                  {InBoot<kOptions, Play>, InBoot<kOptions, PlayAgain>}};
