// I/O manager: devices, requests, memory descriptor lists. Field names and flag values are the
// platform's, and so is where the fields lie: an image built with the platform's own headers works on these
// records too (platform/windows/layout_check.cpp). Room without a name is the platform's fields that neither
// the driver nor the machine's devices use.
#pragma once
#include "platform/host/nt/ntex.h"
#include "platform/host/nt/ntrtl.h"

struct DEVICE_OBJECT;
struct DRIVER_OBJECT;
struct FILE_OBJECT;
struct IRP;
struct MDL;
using PDEVICE_OBJECT = DEVICE_OBJECT*;
using PDRIVER_OBJECT = DRIVER_OBJECT*;
using PFILE_OBJECT = FILE_OBJECT*;
using PIRP = IRP*;
using PMDL = MDL*;

// ---- major and minor functions -----------------------------------------------------------------------
inline constexpr UCHAR IRP_MJ_CREATE = 0x00;
inline constexpr UCHAR IRP_MJ_CLOSE = 0x02;
inline constexpr UCHAR IRP_MJ_READ = 0x03;
inline constexpr UCHAR IRP_MJ_WRITE = 0x04;
inline constexpr UCHAR IRP_MJ_FLUSH_BUFFERS = 0x09;
inline constexpr UCHAR IRP_MJ_FILE_SYSTEM_CONTROL = 0x0d;
inline constexpr UCHAR IRP_MJ_DEVICE_CONTROL = 0x0e;
inline constexpr UCHAR IRP_MJ_INTERNAL_DEVICE_CONTROL = 0x0f;
inline constexpr UCHAR IRP_MJ_SHUTDOWN = 0x10;
inline constexpr UCHAR IRP_MJ_CLEANUP = 0x12;
inline constexpr UCHAR IRP_MJ_POWER = 0x16;
inline constexpr UCHAR IRP_MJ_PNP = 0x1b;
inline constexpr UCHAR IRP_MJ_MAXIMUM_FUNCTION = 0x1b;
inline constexpr UCHAR IRP_MN_START_DEVICE = 0x00;
inline constexpr UCHAR IRP_MN_QUERY_REMOVE_DEVICE = 0x01;
inline constexpr UCHAR IRP_MN_REMOVE_DEVICE = 0x02;
inline constexpr UCHAR IRP_MN_CANCEL_REMOVE_DEVICE = 0x03;
inline constexpr UCHAR IRP_MN_QUERY_CAPABILITIES = 0x09;
inline constexpr UCHAR IRP_MN_DEVICE_USAGE_NOTIFICATION = 0x16;
inline constexpr UCHAR IRP_MN_SET_POWER = 0x02;

// ---- flags -------------------------------------------------------------------------------------------
inline constexpr ULONG IRP_NOCACHE = 0x1;
inline constexpr ULONG IRP_PAGING_IO = 0x2;
inline constexpr ULONG IRP_ASSOCIATED_IRP = 0x8;
inline constexpr ULONG IRP_BUFFERED_IO = 0x10;
inline constexpr ULONG IRP_INPUT_OPERATION = 0x40;
inline constexpr ULONG FO_NO_INTERMEDIATE_BUFFERING = 0x8;
inline constexpr ULONG FO_VOLUME_OPEN = 0x00400000;
inline constexpr CSHORT MDL_MAPPED_TO_SYSTEM_VA = 0x1;
inline constexpr CSHORT MDL_PAGES_LOCKED = 0x2;
inline constexpr CSHORT MDL_SOURCE_IS_NONPAGED_POOL = 0x4;
inline constexpr CSHORT MDL_PARTIAL = 0x10;
inline constexpr ULONG DO_BUFFERED_IO = 0x4;
inline constexpr ULONG DO_EXCLUSIVE = 0x8;
inline constexpr ULONG DO_DIRECT_IO = 0x10;
inline constexpr ULONG DO_DEVICE_INITIALIZING = 0x80;
inline constexpr ULONG DO_SHUTDOWN_REGISTERED = 0x800;
inline constexpr ULONG DO_BUS_ENUMERATED_DEVICE = 0x1000;
inline constexpr ULONG DO_POWER_PAGABLE = 0x2000;
inline constexpr ULONG DO_POWER_INRUSH = 0x4000;
inline constexpr ULONG FILE_REMOVABLE_MEDIA = 0x1;
inline constexpr ULONG FILE_READ_ONLY_DEVICE = 0x2;
inline constexpr ULONG FILE_FLOPPY_DISKETTE = 0x4;
inline constexpr ULONG FILE_DEVICE_SECURE_OPEN = 0x100;
inline constexpr ULONG FILE_DEVICE_DISK = 0x7;
inline constexpr ULONG FILE_DEVICE_DISK_FILE_SYSTEM = 0x8;
inline constexpr ULONG FILE_DEVICE_NETWORK = 0x12;
inline constexpr CCHAR IO_NO_INCREMENT = 0;
inline constexpr UCHAR SL_PENDING_RETURNED = 0x01;
inline constexpr UCHAR SL_INVOKE_ON_CANCEL = 0x20;
inline constexpr UCHAR SL_INVOKE_ON_SUCCESS = 0x40;
inline constexpr UCHAR SL_INVOKE_ON_ERROR = 0x80;
enum LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess };
inline constexpr ULONG MdlMappingNoExecute = 0x40000000;  // with a priority
enum MM_PAGE_PRIORITY : ULONG { LowPagePriority = 0, NormalPagePriority = 16, HighPagePriority = 32 };

// ---- records -----------------------------------------------------------------------------------------
struct IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
};
using PIO_STATUS_BLOCK = IO_STATUS_BLOCK*;

// A described buffer: StartVa + ByteOffset, ByteCount bytes.
struct MDL {
    MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PVOID Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
};

struct VPB {
    UCHAR Room[8];
    PDEVICE_OBJECT DeviceObject;  // the mounted file system's device, null while none is mounted
    PDEVICE_OBJECT RealDevice;
};
using PVPB = VPB*;

struct FILE_OBJECT {
    UCHAR Room0[8];
    PDEVICE_OBJECT DeviceObject;
    PVPB Vpb;
    PVOID FsContext;
    UCHAR Room20[0x30];
    ULONG Flags;
    UNICODE_STRING FileName;
};

struct HostDevice;  // the host kernel's own part of a device object

struct DEVICE_OBJECT {
    UCHAR Room0[8];
    PDRIVER_OBJECT DriverObject;
    PDEVICE_OBJECT NextDevice;
    PDEVICE_OBJECT AttachedDevice;  // the device directly above
    UCHAR Room20[0x10];
    ULONG Flags;
    ULONG Characteristics;
    PVPB Vpb;
    PVOID DeviceExtension;
    DEVICE_TYPE DeviceType;
    CCHAR StackSize;
    UCHAR Room4D[0x4B];
    ULONG AlignmentRequirement;
    UCHAR Room9C[0x94];
    USHORT SectorSize;
    HostDevice* Host;
};

using PDRIVER_DISPATCH = NTSTATUS (*)(PDEVICE_OBJECT, PIRP);
using PDRIVER_ADD_DEVICE = NTSTATUS (*)(PDRIVER_OBJECT, PDEVICE_OBJECT);
using PDRIVER_INITIALIZE = NTSTATUS (*)(PDRIVER_OBJECT, PUNICODE_STRING);
using PDRIVER_UNLOAD = void (*)(PDRIVER_OBJECT);
using PIO_COMPLETION_ROUTINE = NTSTATUS (*)(PDEVICE_OBJECT, PIRP, PVOID);

struct DRIVER_EXTENSION {
    PDRIVER_OBJECT DriverObject;
    PDRIVER_ADD_DEVICE AddDevice;
};

struct DRIVER_OBJECT {
    UCHAR Room0[8];
    PDEVICE_OBJECT DeviceObject;  // first of the driver's devices, linked by NextDevice
    UCHAR Room10[0x20];
    DRIVER_EXTENSION* DriverExtension;
    UNICODE_STRING DriverName;
    UCHAR Room48[0x20];
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
};

enum SYSTEM_POWER_STATE {
    PowerSystemUnspecified = 0,
    PowerSystemWorking = 1,
    PowerSystemSleeping3 = 4,
    PowerSystemShutdown = 6
};
enum DEVICE_POWER_STATE { PowerDeviceUnspecified = 0, PowerDeviceD0 = 1, PowerDeviceD3 = 4 };
enum POWER_STATE_TYPE { SystemPowerState = 0, DevicePowerState = 1 };
enum DEVICE_USAGE_NOTIFICATION_TYPE {
    DeviceUsageTypeUndefined,
    DeviceUsageTypePaging,
    DeviceUsageTypeHibernation,
    DeviceUsageTypeDumpFile
};
union POWER_STATE {
    SYSTEM_POWER_STATE SystemState;
    DEVICE_POWER_STATE DeviceState;
};

// Who asks for an open.
using PACCESS_TOKEN = PVOID;
enum SECURITY_IMPERSONATION_LEVEL {
    SecurityAnonymous,
    SecurityIdentification,
    SecurityImpersonation,
    SecurityDelegation
};
struct SECURITY_SUBJECT_CONTEXT {
    PACCESS_TOKEN ClientToken;
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
    PACCESS_TOKEN PrimaryToken;
    PVOID ProcessAuditId;
};
struct ACCESS_STATE {
    UCHAR Room0[0x20];
    SECURITY_SUBJECT_CONTEXT SubjectSecurityContext;
};
struct IO_SECURITY_CONTEXT {
    PVOID SecurityQos;
    ACCESS_STATE* AccessState;
};
BOOLEAN SeTokenIsAdmin(PACCESS_TOKEN token);
inline constexpr UCHAR SL_FORCE_ACCESS_CHECK = 0x01;

struct IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            IO_SECURITY_CONTEXT* SecurityContext;
        } Create;
        struct {
            ULONG Length;
            alignas(8) ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Read;
        struct {
            ULONG Length;
            alignas(8) ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Write;
        struct {
            ULONG OutputBufferLength;
            alignas(8) ULONG InputBufferLength;
            alignas(8) ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            ULONG SystemContext;
            alignas(8) POWER_STATE_TYPE Type;
            alignas(8) POWER_STATE State;
        } Power;
        struct {
            BOOLEAN InPath;
            BOOLEAN Reserved[3];
            alignas(8) DEVICE_USAGE_NOTIFICATION_TYPE Type;
        } UsageNotification;
        struct {
            PVOID Argument1, Argument2, Argument3, Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PFILE_OBJECT FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
};
using PIO_STACK_LOCATION = IO_STACK_LOCATION*;

struct HostIrp;  // the host kernel's own part of a request

struct IRP {
    UCHAR Room0[8];
    PMDL MdlAddress;
    ULONG Flags;
    union {
        IRP* MasterIrp;
        PVOID SystemBuffer;
    } AssociatedIrp;
    HostIrp* Host;  // the platform's own part as well
    UCHAR Room28[8];
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CCHAR StackCount;
    CCHAR CurrentLocation;
    BOOLEAN Cancel;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    UCHAR Room58[0x18];
    PVOID UserBuffer;
    struct {
        struct {
            UCHAR Room78[0x20];
            PETHREAD Thread;
            UCHAR RoomA0[8];
            LIST_ENTRY ListEntry;
            PIO_STACK_LOCATION CurrentStackLocation;
            PFILE_OBJECT OriginalFileObject;
            UCHAR RoomC8[8];
        } Overlay;
    } Tail;
};

// ---- devices -----------------------------------------------------------------------------------------
[[nodiscard]] NTSTATUS IoCreateDevice(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING name,
                                      DEVICE_TYPE type, ULONG characteristics, BOOLEAN exclusive,
                                      PDEVICE_OBJECT* device);
void IoDeleteDevice(PDEVICE_OBJECT device);
[[nodiscard]] NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING link, PUNICODE_STRING target);
NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING link);
PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT source, PDEVICE_OBJECT target);
void IoDetachDevice(PDEVICE_OBJECT target);
PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT device);
PDEVICE_OBJECT IoGetLowerDeviceObject(PDEVICE_OBJECT device);  // referenced; null at the bottom
enum DEVICE_REGISTRY_PROPERTY { DevicePropertyClassName = 5, DevicePropertyClassGuid = 6 };
[[nodiscard]] NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT device, DEVICE_REGISTRY_PROPERTY property,
                                           ULONG length, PVOID buffer, PULONG resultLength);
NTSTATUS IoRegisterShutdownNotification(PDEVICE_OBJECT device);
// After all file systems have ended: the handler may touch nothing pageable, no file and no registry.
NTSTATUS IoRegisterLastChanceShutdownNotification(PDEVICE_OBJECT device);
void IoUnregisterShutdownNotification(PDEVICE_OBJECT device);  // of both kinds

// Is memory paged to that file, whatever its name? Any IRQL.
[[nodiscard]] LOGICAL FsRtlIsPagingFile(PFILE_OBJECT file);

// ---- requests ----------------------------------------------------------------------------------------
PIRP IoAllocateIrp(CCHAR stackSize, BOOLEAN chargeQuota);
void IoFreeIrp(PIRP irp);
BOOLEAN IoIs32bitProcess(PIRP irp);  // here always of a request: is its sender a 32-bit program?
PIRP IoBuildAsynchronousFsdRequest(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                                   PLARGE_INTEGER offset, PIO_STATUS_BLOCK iosb);
PIRP IoBuildDeviceIoControlRequest(ULONG code, PDEVICE_OBJECT device, PVOID input, ULONG inputLength,
                                   PVOID output, ULONG outputLength, BOOLEAN internal, PKEVENT event,
                                   PIO_STATUS_BLOCK iosb);
NTSTATUS IofCallDriver(PDEVICE_OBJECT device, PIRP irp);
void IofCompleteRequest(PIRP irp, CCHAR boost);
inline NTSTATUS IoCallDriver(PDEVICE_OBJECT device, PIRP irp) {
    return IofCallDriver(device, irp);
}
inline void IoCompleteRequest(PIRP irp, CCHAR boost) {
    IofCompleteRequest(irp, boost);
}
inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP irp) {
    return irp->Tail.Overlay.CurrentStackLocation;
}
inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP irp) {
    return irp->Tail.Overlay.CurrentStackLocation - 1;
}
inline void IoSkipCurrentIrpStackLocation(PIRP irp) {
    ++irp->CurrentLocation;
    ++irp->Tail.Overlay.CurrentStackLocation;
}
inline void IoCopyCurrentIrpStackLocationToNext(PIRP irp) {
    PIO_STACK_LOCATION current = IoGetCurrentIrpStackLocation(irp);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    *next = *current;
    next->Control = 0;
    next->CompletionRoutine = nullptr;
    next->Context = nullptr;
}
inline void IoSetCompletionRoutine(PIRP irp, PIO_COMPLETION_ROUTINE routine, PVOID context, BOOLEAN success,
                                   BOOLEAN error, BOOLEAN cancel) {
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->CompletionRoutine = routine;
    next->Context = context;
    next->Control = static_cast<UCHAR>((success ? SL_INVOKE_ON_SUCCESS : 0) | (error ? SL_INVOKE_ON_ERROR : 0) |
                                       (cancel ? SL_INVOKE_ON_CANCEL : 0));
}
inline void IoMarkIrpPending(PIRP irp) {
    IoGetCurrentIrpStackLocation(irp)->Control |= SL_PENDING_RETURNED;
}

// ---- remove lock -------------------------------------------------------------------------------------
struct IO_REMOVE_LOCK {
    std::atomic<BOOLEAN> Removed;
    std::atomic<LONG> IoCount;
    KEVENT RemoveEvent;
};
using PIO_REMOVE_LOCK = IO_REMOVE_LOCK*;
void IoInitializeRemoveLock(PIO_REMOVE_LOCK lock, ULONG tag, ULONG maxMinutes, ULONG highWatermark);
// STATUS_SUCCESS, or STATUS_DELETE_PENDING once removal has begun.
[[nodiscard]] NTSTATUS IoAcquireRemoveLock(PIO_REMOVE_LOCK lock, PVOID tag);
void IoReleaseRemoveLock(PIO_REMOVE_LOCK lock, PVOID tag);
void IoReleaseRemoveLockAndWait(PIO_REMOVE_LOCK lock, PVOID tag);

// ---- memory descriptor lists -------------------------------------------------------------------------
PMDL IoAllocateMdl(PVOID address, ULONG length, BOOLEAN secondary, BOOLEAN chargeQuota, PIRP irp);
void IoFreeMdl(PMDL mdl);
void MmBuildMdlForNonPagedPool(PMDL mdl);
void MmProbeAndLockPages(PMDL mdl, KPROCESSOR_MODE mode, LOCK_OPERATION operation);  // raises on failure
void MmUnlockPages(PMDL mdl);
PVOID MmGetSystemAddressForMdlSafe(PMDL mdl, ULONG priority);
inline ULONG MmGetMdlByteCount(PMDL mdl) {
    return mdl->ByteCount;
}

// ---- power -------------------------------------------------------------------------------------------
void PoStartNextPowerIrp(PIRP irp);
NTSTATUS PoCallDriver(PDEVICE_OBJECT device, PIRP irp);
