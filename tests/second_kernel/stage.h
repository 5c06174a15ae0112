// What a story needs of the kernel that it plays on, beyond the kernel's own interfaces: how the driver gets
// loaded, what a Plug and Play manager and a file system would do, what survives a boot, and who counts what
// went wrong. host/ implements it over the host kernel.
//
// A story is written against platform/kernel.h and this header alone and runs as kernel code at PASSIVE_LEVEL.
// It is a list of boots; each boot finds a kernel without the driver, and every call here belongs to the
// present boot unless it says otherwise. One story runs at a time.
#pragma once
#include "platform/kernel.h"

namespace stage {

// ---- the driver under test -----------------------------------------------------------------------------
// Loads the driver as a boot does, with every global at its load value. Once in a boot. `driver` is the object
// that its entry received; null on failure.
[[nodiscard]] NTSTATUS LoadDriver(PDRIVER_OBJECT& driver);
// Waits, 30 seconds at most, until every thread that the driver started has ended; how many still run.
ULONG WaitForDriverThreads();
// The whole lines that the driver printed since this boot began; how many contain `part`.
ULONG TimesSaid(const char* part);

// ---- devices -------------------------------------------------------------------------------------------
// The driver object for devices that the story makes; the story fills its dispatch table.
PDRIVER_OBJECT OwnDriver();
// What IoGetDeviceProperty answers for a physical device: DevicePropertyClassName or DevicePropertyClassGuid.
// `value` is not copied.
void SetDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, const WCHAR* value);
// Calls the driver's AddDevice routine. The filter that attaches finds the sector size of `pdo`.
[[nodiscard]] NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
PDEVICE_OBJECT TopOfStack(PDEVICE_OBJECT device);  // unreferenced
// Sends IRP_MJ_SHUTDOWN to every device that registered for it, the last registered first.
void NotifyShutdown();

// ---- what survives a boot ------------------------------------------------------------------------------
// The bytes of medium `number` (0 to 7), zero before the story's first boot. Each boot asks with the same size.
// They are kept as they are when the boot's function returns. Null without memory.
PUCHAR Medium(ULONG number, SIZE_T bytes);
// The registry survives as well: what the driver stored is there in the next boot, and gone before the first.

// ---- files ---------------------------------------------------------------------------------------------
// A file system that the story plays. The kernel's file calls reach it for paths on a device that it is mounted
// on. Contexts are the file system's own; IRQL PASSIVE_LEVEL, several threads at once.
struct FileCalls {
    // `path` is relative to the volume and begins with a backslash. `information` receives FILE_OPENED,
    // FILE_CREATED or FILE_OVERWRITTEN; `open` stands for this open from now on.
    NTSTATUS(*Create)
    (PVOID fileSystem, PCUNICODE_STRING path, ACCESS_MASK access, ULONG share, ULONG disposition, ULONG options,
     PVOID* open, ULONG_PTR* information);
    NTSTATUS (*Read)(PVOID open, LONGLONG offset, PVOID buffer, ULONG length, ULONG* done);
    NTSTATUS (*Write)(PVOID open, LONGLONG offset, const void* buffer, ULONG length, ULONG* done);
    void (*Close)(PVOID open);
    NTSTATUS (*Delete)(PVOID fileSystem, PCUNICODE_STRING path);
};
// Mounts on a named device until the boot ends. `calls` and `fileSystem` must live as long.
void Mount(PDEVICE_OBJECT device, const FileCalls* calls, PVOID fileSystem);
// Where \SystemRoot leads: a path such as \Device\StoryVolume1\Windows, not copied. Null: to a folder of real
// files that the kernel itself keeps, which survives boots and is empty before the first.
void SetSystemRoot(const WCHAR* path);

// ---- faults --------------------------------------------------------------------------------------------
enum class Fault {
    Allocate,      // ExAllocatePoolWithTag gives null
    BuildRequest,  // the kernel's request builders give null
    LockPages,     // MmProbeAndLockPages raises
    CreateThread,
};
// The n-th call (from 1) that the driver makes from now on fails, all others succeed. One plan at a time.
void FailCall(Fault kind, ULONG n);
// Ends the plan; how many such calls the driver made since it was armed.
ULONG EndFault();
// While one lives, what this thread calls is the story's own work and no call of the driver's: it neither
// counts nor fails, since the kernel cannot tell the callers apart. Around calls of the story alone, never
// around one that leads into the driver.
class OwnWork {
public:
    OwnWork();
    ~OwnWork();
    OwnWork(const OwnWork&) = delete;
    OwnWork& operator=(const OwnWork&) = delete;
};

// ---- the ledger ----------------------------------------------------------------------------------------
// Pool blocks with the driver's tag that are outstanding.
LONG PoolBlocks();
// What the driver's own assertions reported since this boot began. A broken rule of the platform stops the
// program where it was broken.
ULONG BrokenRules();

// ---- the outcome ---------------------------------------------------------------------------------------
// Names what the story does next; failures are reported with it.
void Step(const char* what);
// Notes a check. A failed one is reported with the story, its boot, the step, `what` and both values, and fails
// the story, which goes on. Any IRQL up to DISPATCH_LEVEL, any thread. Returns whether it holds.
bool Check(bool holds, const char* what, ULONGLONG got = 0, ULONGLONG expected = 0);
inline bool CheckEqual(ULONGLONG got, ULONGLONG expected, const char* what) {
    return Check(got == expected, what, got, expected);
}
inline bool CheckStatus(NTSTATUS got, NTSTATUS expected, const char* what) {
    return Check(got == expected, what, static_cast<ULONG>(got), static_cast<ULONG>(expected));
}
// Whether a check of this boot has failed: for what makes no sense to go on with.
bool Failed();

}  // namespace stage

// A story: what it proves, and its boots in their order. Defined in stories/, listed in stories/list.h.
struct Story {
    const char* name;  // letters, digits and underscores
    const char* proves;
    void (*const* boots)();
    ULONG bootCount;
};
