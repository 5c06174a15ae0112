// Device-control and file-system-control codes and the records that go with them.
#pragma once
#include "platform/host/nt/ntio.h"

enum MEDIA_TYPE { Unknown = 0, RemovableMedia = 11, FixedMedia = 12 };

struct DISK_GEOMETRY {
    LARGE_INTEGER Cylinders;
    MEDIA_TYPE MediaType;
    ULONG TracksPerCylinder;
    ULONG SectorsPerTrack;
    ULONG BytesPerSector;
};

struct STORAGE_DEVICE_NUMBER {
    DEVICE_TYPE DeviceType;
    ULONG DeviceNumber;
    ULONG PartitionNumber;
};

struct DISK_EXTENT {
    ULONG DiskNumber;
    LARGE_INTEGER StartingOffset;
    LARGE_INTEGER ExtentLength;
};

struct VOLUME_DISK_EXTENTS {
    ULONG NumberOfDiskExtents;
    DISK_EXTENT Extents[ANYSIZE_ARRAY];
};
using PVOLUME_DISK_EXTENTS = VOLUME_DISK_EXTENTS*;

struct SCSI_PASS_THROUGH {
    USHORT Length;
    UCHAR ScsiStatus, PathId, TargetId, Lun, CdbLength, SenseInfoLength, DataIn;
    ULONG DataTransferLength;
    ULONG TimeOutValue;
    ULONG_PTR DataBufferOffset;
    ULONG SenseInfoOffset;
    UCHAR Cdb[16];
};
struct SCSI_PASS_THROUGH_DIRECT {
    USHORT Length;
    UCHAR ScsiStatus, PathId, TargetId, Lun, CdbLength, SenseInfoLength, DataIn;
    ULONG DataTransferLength;
    ULONG TimeOutValue;
    PVOID DataBuffer;
    ULONG SenseInfoOffset;
    UCHAR Cdb[16];
};
static_assert(sizeof(SCSI_PASS_THROUGH) == 56 && offsetof(SCSI_PASS_THROUGH, Cdb) == 36);
static_assert(sizeof(SCSI_PASS_THROUGH_DIRECT) == 56 && offsetof(SCSI_PASS_THROUGH_DIRECT, Cdb) == 36);

// As a 32-bit program lays it out.
struct SCSI_PASS_THROUGH32 {
    USHORT Length;
    UCHAR ScsiStatus, PathId, TargetId, Lun, CdbLength, SenseInfoLength, DataIn;
    ULONG DataTransferLength;
    ULONG TimeOutValue;
    ULONG DataBufferOffset;
    ULONG SenseInfoOffset;
    UCHAR Cdb[16];
};
static_assert(sizeof(SCSI_PASS_THROUGH32) == 44 && offsetof(SCSI_PASS_THROUGH32, Cdb) == 28);

struct ATA_PASS_THROUGH_EX {
    USHORT Length;
    USHORT AtaFlags;
    UCHAR PathId, TargetId, Lun, ReservedAsUchar;
    ULONG DataTransferLength;
    ULONG TimeOutValue;
    ULONG ReservedAsUlong;
    ULONG_PTR DataBufferOffset;
    UCHAR PreviousTaskFile[8];
    UCHAR CurrentTaskFile[8];
};
struct ATA_PASS_THROUGH_EX32 {
    USHORT Length;
    USHORT AtaFlags;
    UCHAR PathId, TargetId, Lun, ReservedAsUchar;
    ULONG DataTransferLength;
    ULONG TimeOutValue;
    ULONG ReservedAsUlong;
    ULONG DataBufferOffset;
    UCHAR PreviousTaskFile[8];
    UCHAR CurrentTaskFile[8];
};
static_assert(sizeof(ATA_PASS_THROUGH_EX) == 48 && sizeof(ATA_PASS_THROUGH_EX32) == 40);
inline constexpr USHORT ATA_FLAGS_DATA_OUT = 4;

#define CTL_CODE(type, function, method, access) \
    ((static_cast<ULONG>(type) << 16) | ((access) << 14) | ((function) << 2) | (method))
#define METHOD_BUFFERED 0
#define FILE_ANY_ACCESS 0
#define FILE_READ_ACCESS 1
#define FILE_WRITE_ACCESS 2

inline constexpr ULONG IOCTL_DISK_GET_DRIVE_GEOMETRY = 0x70000;
inline constexpr ULONG IOCTL_DISK_VERIFY = 0x70014;
inline constexpr ULONG IOCTL_DISK_IS_WRITABLE = 0x70024;
inline constexpr ULONG IOCTL_DISK_GET_DRIVE_LAYOUT = 0x7400C;
inline constexpr ULONG IOCTL_DISK_GET_DRIVE_LAYOUT_EX = 0x70050;
inline constexpr ULONG IOCTL_DISK_SET_DRIVE_LAYOUT = 0x7C010;
inline constexpr ULONG IOCTL_DISK_SET_DRIVE_LAYOUT_EX = 0x7C054;
inline constexpr ULONG IOCTL_DISK_FORMAT_TRACKS = 0x7C018;
inline constexpr ULONG IOCTL_DISK_FORMAT_TRACKS_EX = 0x7C02C;
inline constexpr ULONG IOCTL_DISK_SET_PARTITION_INFO = 0x7C008;
inline constexpr ULONG IOCTL_DISK_SET_PARTITION_INFO_EX = 0x7C04C;
inline constexpr ULONG IOCTL_DISK_GET_LENGTH_INFO = 0x7405C;
inline constexpr ULONG IOCTL_DISK_GROW_PARTITION = 0x7C0D0;
inline constexpr ULONG IOCTL_DISK_DELETE_DRIVE_LAYOUT = 0x7C100;
inline constexpr ULONG IOCTL_SCSI_PASS_THROUGH = 0x4D004;
inline constexpr ULONG IOCTL_SCSI_PASS_THROUGH_DIRECT = 0x4D014;
inline constexpr ULONG IOCTL_IDE_PASS_THROUGH = 0x4D028;
inline constexpr ULONG IOCTL_SCSI_PASS_THROUGH_EX = 0x4D044;
inline constexpr ULONG IOCTL_SCSI_PASS_THROUGH_DIRECT_EX = 0x4D048;
inline constexpr ULONG IOCTL_ATA_PASS_THROUGH = 0x4D02C;
inline constexpr ULONG IOCTL_ATA_PASS_THROUGH_DIRECT = 0x4D030;
inline constexpr ULONG IOCTL_STORAGE_PROTOCOL_COMMAND = 0x2DD3C0;
inline constexpr ULONG IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES = 0x2D9404;
inline constexpr ULONG IOCTL_STORAGE_REINITIALIZE_MEDIA = 0x2D9640;
inline constexpr ULONG IOCTL_STORAGE_REMOVE_ELEMENT_AND_TRUNCATE = 0x2D1CC0;
inline constexpr ULONG IOCTL_STORAGE_GET_DEVICE_NUMBER = 0x2D1080;
inline constexpr ULONG IOCTL_DISK_REASSIGN_BLOCKS = 0x7C01C;
inline constexpr ULONG IOCTL_DISK_REASSIGN_BLOCKS_EX = 0x7C0A4;
inline constexpr ULONG IOCTL_DISK_CREATE_DISK = 0x7C058;
inline constexpr ULONG IOCTL_MOUNTDEV_LINK_CREATED = 0x4DC010;
inline constexpr ULONG IOCTL_MOUNTDEV_LINK_DELETED = 0x4DC014;
inline constexpr ULONG IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS = 0x560000;
inline constexpr ULONG FSCTL_MOVE_FILE = 0x90074;
inline constexpr ULONG FSCTL_EXTEND_VOLUME = 0x900F0;
inline constexpr ULONG FSCTL_SHRINK_VOLUME = 0x901B0;
inline constexpr ULONG IOCTL_VOLUME_PREPARE_FOR_SHRINK = 0x56C05C;
