#include "driver/globals.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/config_files.h"
#include "config/storage.h"
#include "driver/create_close.h"
#include "driver/entry.h"
#include "driver/record/hardening.h"
#include "driver/record/requests.h"
#include "driver/record/threads.h"
#include "platform/owners.h"
#include "redirect/redirect.h"
#include "swap/swap_file.h"

// driver/record/
constinit POOL_TYPE gPoolType = NonPagedPool;
constinit PDEVICE_OBJECT gControlDevice{};
constinit LIST_ENTRY gVolumeList{};
constinit FAST_MUTEX gVolumeListLock{};
constinit std::atomic<PKTHREAD> gProvisionThread{};
constinit std::atomic<BOOLEAN> gProvisionQuit{};
constinit KMUTEX gProvisionMutex{};
constinit std::atomic<BOOLEAN> gHardening{};
constinit std::atomic<BOOLEAN> gHardeningKnown{};
constinit std::atomic<BOOLEAN> gBootStoreElsewhere{};

// config/parser.h
constinit std::atomic<BOOLEAN> gTesselEnabled{};
constinit std::atomic<BOOLEAN> gRVProtect{};
constinit std::atomic<BOOLEAN> gRVInvisible{};

// config/protected_volumes.h
constinit std::atomic<PROTECTED_VOLUME*> gProtectedVolumeList{};

// config/storage.h, config/config_files.h
constinit UCHAR gConfigBuffer[KVR_CONFIG_BYTES]{};
constinit std::atomic<BOOLEAN> gConfigLoaded{};
constinit std::atomic<BOOLEAN> gConfigDirty{};
constinit std::atomic<LONG> gConfigureBusy{};
constinit std::atomic<BOOLEAN> gConfigWrittenByTool{};
constinit std::atomic<HANDLE> gConfigFileHandle{};
constinit std::atomic<HANDLE> gDriverFileHandle{};
constinit FAST_MUTEX gConfigWriteLock{};
constinit std::atomic<LONG> gConfigToolWrites{};

// swap/swap_file.h
constinit SWAP_FILE* gSwapFileList{};
constinit KMUTEX gSwapFileMutex{};

// redirect/redirect.h
constinit KEVENT gBootStatusEvent{};

// driver/
constinit BOOLEAN gControlOpen{};
constinit KSPIN_LOCK gControlLock{};
constinit RTL_OSVERSIONINFOEXW gVersionInfo{};

namespace {

void InitializeFrameGlobals() {
    gPoolType = NonPagedPool;
    gControlDevice = nullptr;
    gControlOpen = FALSE;
    gVolumeList = {};
    gVersionInfo = {};
    gHardening = FALSE;
    gHardeningKnown = FALSE;
    gBootStoreElsewhere = FALSE;
}

void InitializeConfigGlobals() {
    gTesselEnabled = FALSE;
    gRVProtect = FALSE;
    gRVInvisible = FALSE;
    gProtectedVolumeList = nullptr;
    RtlZeroMemory(gConfigBuffer, sizeof(gConfigBuffer));
    gConfigLoaded = FALSE;
    gConfigDirty = FALSE;
    gConfigureBusy = 0;
    gConfigWrittenByTool = FALSE;
    gConfigFileHandle = nullptr;
    gDriverFileHandle = nullptr;
    gConfigToolWrites = 0;
}

void InitializeStorageGlobals() {
    gProvisionThread = nullptr;
    gProvisionQuit = FALSE;
    gSwapFileList = nullptr;
}

}  // namespace

// What these once pointed to belongs to an earlier power-on and is gone with it.
void InitializeGlobals() {
    InitializeFrameGlobals();
    InitializeConfigGlobals();
    InitializeStorageGlobals();
}
