#include "driver/globals.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/config_files.h"
#include "config/storage.h"
#include "driver/create_close.h"
#include "driver/entry.h"
#include "driver/record/requests.h"
#include "driver/record/threads.h"
#include "redirect/redirect.h"
#include "swap/swap_file.h"

// driver/record/
constinit PDEVICE_OBJECT gControlDevice = nullptr;
constinit LIST_ENTRY gVolumeList{};
constinit FAST_MUTEX gVolumeListLock{};
constinit std::atomic<PKTHREAD> gProvisionThread{nullptr};
constinit std::atomic<BOOLEAN> gProvisionQuit{FALSE};
constinit KMUTEX gProvisionMutex{};

// config/parser.h
constinit std::atomic<BOOLEAN> gTesselEnabled{FALSE};
constinit std::atomic<BOOLEAN> gRVProtect{FALSE};
constinit std::atomic<BOOLEAN> gRVInvisible{FALSE};

// config/protected_volumes.h
constinit std::atomic<PROTECTED_VOLUME*> gProtectedVolumeList{nullptr};

// config/storage.h, config/config_files.h
constinit UCHAR gConfigBuffer[KVR_CONFIG_BYTES]{};
constinit std::atomic<BOOLEAN> gConfigLoaded{FALSE};
constinit std::atomic<BOOLEAN> gConfigDirty{FALSE};
constinit std::atomic<LONG> gConfigureBusy{0};
constinit std::atomic<BOOLEAN> gConfigWrittenByTool{FALSE};
constinit std::atomic<HANDLE> gConfigFileHandle{nullptr};
constinit std::atomic<HANDLE> gDriverFileHandle{nullptr};
constinit FAST_MUTEX gConfigWriteLock{};
constinit std::atomic<LONG> gConfigToolWrites{0};

// swap/swap_file.h
constinit SWAP_FILE* gSwapFileList = nullptr;
constinit KMUTEX gSwapFileMutex{};

// redirect/redirect.h
constinit KEVENT gBootStatusEvent{};

// driver/
constinit BOOLEAN gControlOpen = FALSE;
constinit KSPIN_LOCK gControlLock{};
constinit RTL_OSVERSIONINFOEXW gVersionInfo{};

namespace {

// Locks and events are opaque: not yet initialised, they are all zero.
template <class T>
void ClearOpaque(T& object) {
    RtlZeroMemory(&object, sizeof(object));
}

void InitializeFrameGlobals() {
    gControlDevice = nullptr;
    gControlOpen = FALSE;
    ClearOpaque(gControlLock);
    gVolumeList = {};
    ClearOpaque(gVolumeListLock);
    gVersionInfo = {};
    ClearOpaque(gBootStatusEvent);
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
    ClearOpaque(gConfigWriteLock);
    gConfigToolWrites = 0;
}

void InitializeStorageGlobals() {
    gProvisionThread = nullptr;
    gProvisionQuit = FALSE;
    ClearOpaque(gProvisionMutex);
    gSwapFileList = nullptr;
    ClearOpaque(gSwapFileMutex);
}

}  // namespace

// What these once pointed to belongs to an earlier power-on and is gone with it.
void InitializeGlobals() {
    InitializeFrameGlobals();
    InitializeConfigGlobals();
    InitializeStorageGlobals();
}
