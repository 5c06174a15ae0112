// What the host kernel offers by name, and the driver's image as the driver to load. The image is built with
// the platform's own headers; layout_check.cpp holds both sides to the same records.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include "platform/host/sync/clock.h"
#include "platform/kernel.h"
#include "tests/second_kernel/stage.h"
#include "tests/second_kernel/wine/image.h"
#include "tests/second_kernel/wine/proof_story.h"

namespace {

// ---- what the platform's headers make of a name that the host kernel declares as it is written ----------
void IoInitializeRemoveLockEx(PIO_REMOVE_LOCK lock, ULONG tag, ULONG minutes, ULONG highWatermark, ULONG size) {
    if (size != sizeof(IO_REMOVE_LOCK)) KeBugCheckEx(size, 0, 0, 0, 0);
    IoInitializeRemoveLock(lock, tag, minutes, highWatermark);
}
NTSTATUS IoAcquireRemoveLockEx(PIO_REMOVE_LOCK lock, PVOID tag, PCSTR, ULONG, ULONG) {
    return IoAcquireRemoveLock(lock, tag);
}
void IoReleaseRemoveLockEx(PIO_REMOVE_LOCK lock, PVOID tag, ULONG) {
    IoReleaseRemoveLock(lock, tag);
}
void IoReleaseRemoveLockAndWaitEx(PIO_REMOVE_LOCK lock, PVOID tag, ULONG) {
    IoReleaseRemoveLockAndWait(lock, tag);
}
PVOID MmMapLockedPagesSpecifyCache(PMDL mdl, KPROCESSOR_MODE, ULONG, PVOID, ULONG, ULONG priority) {
    return MmGetSystemAddressForMdlSafe(mdl, priority);
}
auto PsGetCurrentThread() {
    return KeGetCurrentThread();
}
POBJECT_TYPE PsThreadType = KvrThreadObjectType();

// For each name that the image wants, a case: build.sh reads them from it.
void* FindExport(const char* name) {
    const std::string_view wanted = name;
#define KERNEL_NAME(known) \
    if (wanted == #known) return reinterpret_cast<void*>(&known);
#include "kernel_names.inc"
#undef KERNEL_NAME
    return nullptr;
}

}  // namespace

// Mapped anew for each boot.
PDRIVER_INITIALIZE stage::DriverToLoad() {
    std::string trouble;
    void* entry = image::Load(image::Role::Driver, "kvr64.sys",
                              {FindExport, KeGetCurrentIrql, host::SystemTime}, trouble);
    if (entry != nullptr) return reinterpret_cast<PDRIVER_INITIALIZE>(entry);
    std::fputs(trouble.c_str(), stderr);
    std::exit(2);
}

const Story* stage::OwnStory() {
    return &kProofStory;
}
