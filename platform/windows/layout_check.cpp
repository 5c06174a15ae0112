// Compiled into nothing: what crosses the driver's boundary lies where the other side expects it. The other
// side is the kernel (requests, disk and SCSI records), the tool (control records), or a later boot (what was
// written to a disk). Both builds compile it, against the platform's headers and against the host kernel's, so
// that the host kernel serves the image as well.
#include "config/storage.h"
#include "formats/kvr_ioctl.h"
#include "swap/map_format.h"

#define SIZE_IS(type, bytes) static_assert(sizeof(type) == (bytes))
#define LIES_AT(type, field, offset) static_assert(offsetof(type, field) == (offset))
#define CODE_IS(code, value) static_assert((code) == (value))

// The tool's control codes and records.
#define TOOL_CODE(function, access) CTL_CODE(FILE_DEVICE_DISK_FILE_SYSTEM, function, METHOD_BUFFERED, access)
CODE_IS(IOCTL_KVR_GET_CONFIG, TOOL_CODE(0x012, FILE_READ_ACCESS));
CODE_IS(IOCTL_KVR_SET_CONFIG, TOOL_CODE(0x011, FILE_WRITE_ACCESS));
CODE_IS(IOCTL_KVR_GET_REMOVABLE_VOLUMES, TOOL_CODE(0x031, FILE_READ_ACCESS));
CODE_IS(IOCTL_KVR_GET_FIXED_VOLUMES, TOOL_CODE(0x032, FILE_READ_ACCESS));
CODE_IS(IOCTL_KVR_GET_ENABLED, TOOL_CODE(0x041, FILE_READ_ACCESS));
CODE_IS(IOCTL_KVR_DEBUG, TOOL_CODE(0x0F1, FILE_READ_ACCESS));
CODE_IS(IOCTL_KVR_ALLOCATE_SWAP, TOOL_CODE(0x021, FILE_WRITE_ACCESS));
CODE_IS(IOCTL_KVR_STOP_SWAP_THREAD, TOOL_CODE(0x022, FILE_WRITE_ACCESS));
CODE_IS(IOCTL_KVR_REMOVE_SWAP, TOOL_CODE(0x023, FILE_WRITE_ACCESS));
static_assert(FILE_DEVICE_DISK_FILE_SYSTEM == 8);
SIZE_IS(WCHAR, sizeof(std::uint16_t));

SIZE_IS(SWAP_CONFIG_REQUEST, 136);
LIES_AT(SWAP_CONFIG_REQUEST, VolumeName, 0);
LIES_AT(SWAP_CONFIG_REQUEST, SwapSize, 128);
SIZE_IS(KVR_REMOVABLE_VOLUME_STATUS, 132);
LIES_AT(KVR_REMOVABLE_VOLUME_STATUS, AccessMode, 0);
LIES_AT(KVR_REMOVABLE_VOLUME_STATUS, VolumeName, 4);
SIZE_IS(KVR_FIXED_VOLUME_STATUS, 160);
LIES_AT(KVR_FIXED_VOLUME_STATUS, State, 0);
LIES_AT(KVR_FIXED_VOLUME_STATUS, VolumeName, 4);
LIES_AT(KVR_FIXED_VOLUME_STATUS, SwapTotalBytes, 136);
LIES_AT(KVR_FIXED_VOLUME_STATUS, SwapUsedBytes, 144);
LIES_AT(KVR_FIXED_VOLUME_STATUS, SwapStatus, 152);

// What a boot leaves on the disk and in the registry for the next one.
SIZE_IS(SWAP_MAP_ENTRY, 12);
LIES_AT(SWAP_MAP_ENTRY, ulVolumeSector, 0);
LIES_AT(SWAP_MAP_ENTRY, ulSwapSector, 4);
SIZE_IS(MAP_LOCATION_ENTRY, 8);
LIES_AT(MAP_LOCATION_ENTRY, ulSector, 0);
LIES_AT(MAP_LOCATION_ENTRY, ulLength, 4);
static_assert(sizeof(VOLUME_EXTENSION::PreloadConfigLocation) == 128);
static_assert(sizeof(VOLUME_EXTENSION::PostloadConfigLocation) == 128);

// Requests, devices and files, as far as the driver looks into them.
SIZE_IS(IRP, 0xD0);
LIES_AT(IRP, MdlAddress, 0x08);
LIES_AT(IRP, Flags, 0x10);
LIES_AT(IRP, AssociatedIrp, 0x18);
LIES_AT(IRP, IoStatus, 0x30);
LIES_AT(IRP, RequestorMode, 0x40);
LIES_AT(IRP, PendingReturned, 0x41);
LIES_AT(IRP, StackCount, 0x42);
LIES_AT(IRP, CurrentLocation, 0x43);
LIES_AT(IRP, Cancel, 0x44);
LIES_AT(IRP, UserIosb, 0x48);
LIES_AT(IRP, UserEvent, 0x50);
LIES_AT(IRP, UserBuffer, 0x70);
LIES_AT(IRP, Tail.Overlay.Thread, 0x98);
LIES_AT(IRP, Tail.Overlay.ListEntry, 0xA8);
LIES_AT(IRP, Tail.Overlay.CurrentStackLocation, 0xB8);
LIES_AT(IRP, Tail.Overlay.OriginalFileObject, 0xC0);
SIZE_IS(IO_STACK_LOCATION, 0x48);
LIES_AT(IO_STACK_LOCATION, MajorFunction, 0x00);
LIES_AT(IO_STACK_LOCATION, MinorFunction, 0x01);
LIES_AT(IO_STACK_LOCATION, Control, 0x03);
LIES_AT(IO_STACK_LOCATION, Parameters.Read.Length, 0x08);
LIES_AT(IO_STACK_LOCATION, Parameters.Read.ByteOffset, 0x18);
LIES_AT(IO_STACK_LOCATION, Parameters.Write.Length, 0x08);
LIES_AT(IO_STACK_LOCATION, Parameters.Write.ByteOffset, 0x18);
LIES_AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength, 0x08);
LIES_AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength, 0x10);
LIES_AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 0x18);
LIES_AT(IO_STACK_LOCATION, Parameters.Power.Type, 0x10);
LIES_AT(IO_STACK_LOCATION, Parameters.Power.State, 0x18);
LIES_AT(IO_STACK_LOCATION, Parameters.UsageNotification.InPath, 0x08);
LIES_AT(IO_STACK_LOCATION, Parameters.UsageNotification.Type, 0x10);
LIES_AT(IO_STACK_LOCATION, DeviceObject, 0x28);
LIES_AT(IO_STACK_LOCATION, FileObject, 0x30);
LIES_AT(IO_STACK_LOCATION, CompletionRoutine, 0x38);
LIES_AT(IO_STACK_LOCATION, Context, 0x40);
LIES_AT(DEVICE_OBJECT, DriverObject, 0x08);
LIES_AT(DEVICE_OBJECT, NextDevice, 0x10);
LIES_AT(DEVICE_OBJECT, AttachedDevice, 0x18);
LIES_AT(DEVICE_OBJECT, Flags, 0x30);
LIES_AT(DEVICE_OBJECT, Characteristics, 0x34);
LIES_AT(DEVICE_OBJECT, Vpb, 0x38);
LIES_AT(DEVICE_OBJECT, DeviceExtension, 0x40);
LIES_AT(DEVICE_OBJECT, DeviceType, 0x48);
LIES_AT(DEVICE_OBJECT, StackSize, 0x4C);
LIES_AT(DEVICE_OBJECT, AlignmentRequirement, 0x98);
LIES_AT(DEVICE_OBJECT, SectorSize, 0x130);
LIES_AT(DRIVER_OBJECT, DeviceObject, 0x08);
LIES_AT(DRIVER_OBJECT, DriverExtension, 0x30);
LIES_AT(DRIVER_OBJECT, DriverName, 0x38);
LIES_AT(DRIVER_OBJECT, DriverUnload, 0x68);
LIES_AT(DRIVER_OBJECT, MajorFunction, 0x70);
LIES_AT(DRIVER_EXTENSION, AddDevice, 0x08);
LIES_AT(FILE_OBJECT, DeviceObject, 0x08);
LIES_AT(FILE_OBJECT, Vpb, 0x10);
LIES_AT(FILE_OBJECT, FsContext, 0x18);
LIES_AT(FILE_OBJECT, Flags, 0x50);
LIES_AT(FILE_OBJECT, FileName, 0x58);
LIES_AT(VPB, DeviceObject, 0x08);
LIES_AT(VPB, RealDevice, 0x10);
SIZE_IS(MDL, 0x30);
LIES_AT(MDL, MdlFlags, 0x0A);
LIES_AT(MDL, MappedSystemVa, 0x18);
LIES_AT(MDL, StartVa, 0x20);
LIES_AT(MDL, ByteCount, 0x28);
LIES_AT(MDL, ByteOffset, 0x2C);
SIZE_IS(IO_STATUS_BLOCK, 0x10);
LIES_AT(IO_STATUS_BLOCK, Information, 0x08);
SIZE_IS(OBJECT_ATTRIBUTES, 0x30);
LIES_AT(OBJECT_ATTRIBUTES, ObjectName, 0x10);
LIES_AT(OBJECT_ATTRIBUTES, Attributes, 0x18);
SIZE_IS(OBJECT_NAME_INFORMATION, 0x10);
LIES_AT(KEY_VALUE_PARTIAL_INFORMATION, Data, 0x0C);
SIZE_IS(TIME_FIELDS, 0x10);

// What the driver keeps in its own memory and the kernel works on.
SIZE_IS(KEVENT, 0x18);
SIZE_IS(KMUTEX, 0x38);
SIZE_IS(KSPIN_LOCK, 0x08);
SIZE_IS(FAST_MUTEX, 0x38);
LIES_AT(FAST_MUTEX, Owner, 0x08);
LIES_AT(FAST_MUTEX, OldIrql, 0x30);
SIZE_IS(IO_REMOVE_LOCK, 0x20);
SIZE_IS(RTL_OSVERSIONINFOEXW, 284);
static_assert(IRP_MJ_MAXIMUM_FUNCTION == 27);

// Atomic fields are words of the same width, so that single loads and stores are what the other side sees.
SIZE_IS(std::atomic<BOOLEAN>, sizeof(BOOLEAN));
SIZE_IS(std::atomic<LONGLONG>, sizeof(LONGLONG));
SIZE_IS(std::atomic<PVOID>, sizeof(PVOID));
static_assert(std::atomic<LONGLONG>::is_always_lock_free);

// Disk extents: the record's own array is the kernel's structure with more room.
SIZE_IS(DISK_EXTENT, 24);
LIES_AT(DISK_EXTENT, StartingOffset, 8);
LIES_AT(DISK_EXTENT, ExtentLength, 16);
static_assert(offsetof(VOLUME_EXTENTS, Extents) == offsetof(VOLUME_DISK_EXTENTS, Extents));
static_assert(offsetof(VOLUME_EXTENTS, NumberOfDiskExtents) ==
              offsetof(VOLUME_DISK_EXTENTS, NumberOfDiskExtents));

// The control requests that are looked at.
SIZE_IS(SCSI_PASS_THROUGH, 56);
LIES_AT(SCSI_PASS_THROUGH, Cdb, 36);
SIZE_IS(SCSI_PASS_THROUGH_DIRECT, 56);
LIES_AT(SCSI_PASS_THROUGH_DIRECT, Cdb, 36);
CODE_IS(IOCTL_SCSI_PASS_THROUGH, 0x4D004);
CODE_IS(IOCTL_SCSI_PASS_THROUGH_DIRECT, 0x4D014);
CODE_IS(IOCTL_IDE_PASS_THROUGH, 0x4D028);
CODE_IS(IOCTL_DISK_VERIFY, 0x70014);
CODE_IS(IOCTL_DISK_IS_WRITABLE, 0x70024);
CODE_IS(IOCTL_DISK_GET_DRIVE_LAYOUT, 0x7400C);
CODE_IS(IOCTL_DISK_GET_DRIVE_LAYOUT_EX, 0x70050);
CODE_IS(IOCTL_DISK_SET_DRIVE_LAYOUT, 0x7C010);
CODE_IS(IOCTL_DISK_SET_DRIVE_LAYOUT_EX, 0x7C054);
CODE_IS(IOCTL_DISK_FORMAT_TRACKS, 0x7C018);
CODE_IS(IOCTL_DISK_FORMAT_TRACKS_EX, 0x7C02C);
CODE_IS(IOCTL_DISK_SET_PARTITION_INFO_EX, 0x7C04C);
CODE_IS(IOCTL_DISK_GROW_PARTITION, 0x7C0D0);
CODE_IS(IOCTL_DISK_DELETE_DRIVE_LAYOUT, 0x7C100);
CODE_IS(IOCTL_MOUNTDEV_LINK_CREATED, 0x4DC010);
CODE_IS(IOCTL_MOUNTDEV_LINK_DELETED, 0x4DC014);
CODE_IS(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, 0x560000);
CODE_IS(IOCTL_VOLUME_PREPARE_FOR_SHRINK, 0x56C05C);
CODE_IS(FSCTL_MOVE_FILE, 0x90074);
CODE_IS(FSCTL_EXTEND_VOLUME, 0x900F0);
CODE_IS(FSCTL_SHRINK_VOLUME, 0x901B0);
