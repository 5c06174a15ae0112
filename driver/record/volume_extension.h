// driver/record/: the floor that the driver's folders stand on. The record of each filtered volume or disk, the
// list of all records and the holding of one, and what every folder needs from below: requests, raw sectors,
// system threads, the registry key, names and counted strings. Start here, then volume_list.h and requests.h.
//
// VOLUME_EXTENSION is the record of one filter device, one per filtered volume or disk, and the backbone of
// the driver. It lives in the device's extension, from AddDevice until the device is deleted, which waits
// for every request and thread that holds RemoveLock.
//
// Lock order, outermost first: a record's MapLoadMutex, gProvisionMutex, a record's StorageMutex, a storage
// object's FlushLock, a place among the record's writes (WriteOrderLock), gSwapFileMutex, gVolumeListLock,
// gConfigWriteLock, a record's SwapLock. A CacheLock is taken last and never held together with a SwapLock.
// Fields that say "atomic" are read by the request paths without a lock; each is one machine word and its own
// message.
#pragma once
#include <atomic>
#include "driver/record/tree.h"
#include "formats/saved_map.h"
#include "platform/kernel.h"

struct SWAP_FILE;

inline constexpr ULONG kConfigPieces = 16;
inline constexpr ULONG kNumberedSwapFiles = 16;
inline constexpr ULONG kMaxVolumeExtents = 65;
inline constexpr ULONG kVolumeSignature = 0x54455353;  // 'S','S','E','T' in memory order

// Values of SwapState.
inline constexpr ULONG kSwapUsable = 0;
inline constexpr ULONG kSwapMapBad = 3;        // the saved map could not be loaded
inline constexpr ULONG kSwapNoLocation = 4;    // nothing says where the saved map lies
inline constexpr ULONG kSwapFilesNotHeld = 5;  // the storage files could not be held open
inline constexpr ULONG kSwapVolumeTooLarge =
    6;  // changes are to be kept, and the map has no number for some sectors

inline constexpr ULONG kUnknownDisk = 0xFFFFFFFF;

// VOLUME_DISK_EXTENTS with room for every extent that is kept.
struct VOLUME_EXTENTS {
    ULONG NumberOfDiskExtents;
    DISK_EXTENT Extents[kMaxVolumeExtents];
};

// A volume's index of its redirected ranges: swap/chunk_index.h.
struct CHUNK_INDEX {
    PVOID Root;     // null: there is none
    ULONG Levels;   // of nodes
    ULONG Chunks;   // recorded before there was an index
    BOOLEAN IsOff;  // there was no pool for it
};

struct VOLUME_EXTENSION {
    ULONG Signature;                  // kVolumeSignature
    std::atomic<BOOLEAN> IsDetached;  // shutdown has taken this disk filter out of its stack
    // Protection: written by UpdateVolumeProtection and StartDevice, atomic.
    std::atomic<BOOLEAN> IsProtected;  // writes are redirected (fixed) or refused (removable)
    std::atomic<BOOLEAN> IsExplicit;   // by a section of its own
    std::atomic<ULONG> BootAction;     // PV_ACTION_ bits
    std::atomic<BOOLEAN> IsInvisible;
    // The device: written once by AddDevice and StartDevice; MediaType and BytesPerSector atomic.
    PDEVICE_OBJECT FilterDevice;
    LIST_ENTRY ListEntry;   // in gVolumeList, under gVolumeListLock
    PDEVICE_OBJECT Target;  // the device below
    PDEVICE_OBJECT PhysicalDeviceObject;
    UNICODE_STRING VolumeName;  // over VolumeNameBuffer; set under gVolumeListLock, then fixed
    WCHAR VolumeNameBuffer[64];
    std::atomic<ULONG> MediaType;       // 0 before start, else RemovableMedia or FixedMedia
    std::atomic<ULONG> BytesPerSector;  // 0 before start
    LARGE_INTEGER Cylinders;            // rest of the geometry, as far as it is known
    ULONG SectorsPerTrack;
    ULONG TracksPerCylinder;
    // The paging file as it was last seen by its name: only ever compared, together with the length that the
    // name has. Written by one request at a time, whoever has PagefilePublishing.
    std::atomic<PFILE_OBJECT> PagefileObject;
    std::atomic<PWCHAR> PagefileName;
    std::atomic<BOOLEAN> PagefilePublishing;
    std::atomic<SWAP_FILE*> SwapFile;  // set under gSwapFileMutex, atomic
    // The chunk maps.
    TREE SwappedChunks KVR_GUARDED_BY(SwapLock);     // SWAPPED_CHUNK by volume offset
    TREE FreeChunks KVR_GUARDED_BY(SwapLock);        // FREE_CHUNK by swap offset
    ULONG64 SwapUsedBytes KVR_GUARDED_BY(SwapLock);  // sum over SwappedChunks
    ULONG64 SwapFreeBytes KVR_GUARDED_BY(SwapLock);  // sum over FreeChunks
    VOLUME_EXTENTS VolumeDiskExtents;                // under gVolumeListLock
    std::atomic<BOOLEAN> IsDisk;
    std::atomic<BOOLEAN> IsVolume;
    TREE MapFileChunks KVR_GUARDED_BY(SwapLock);  // MAP_LOCATION_ENTRY by sector
    // Where the configuration's pieces lie; complete when no entry is 0.
    std::atomic<LONGLONG> PreloadConfigLocation[kConfigPieces];  // from the registry at start, atomic
    LONGLONG PostloadConfigLocation[kConfigPieces] KVR_GUARDED_BY(SwapLock);  // captured in this boot
    // The saved map: the run that is being read, and where the map lies. A save counts in a cursor of its
    // own, so MapEntryCount and MapRunIndex are 0 whenever SwapLock can be had.
    UCHAR* MapBuffer KVR_GUARDED_BY(SwapLock);
    ULONG64 MapBufferSize KVR_GUARDED_BY(SwapLock);
    ULONG MapEntryCount KVR_GUARDED_BY(SwapLock);
    std::atomic<MAP_LOCATION_ENTRY*> MapLocation;  // array read and replaced under SwapLock; null test atomic
    ULONG ulMapLocationLength KVR_GUARDED_BY(SwapLock);  // bytes
    ULONG MapRunIndex KVR_GUARDED_BY(SwapLock);
    std::atomic<BOOLEAN> SwapAllocating;  // storage was made in this boot
    std::atomic<BOOLEAN> SwapMapLoaded;   // the map was loaded in this boot
    std::atomic<BOOLEAN> MapReadFailed;   // a part of the saved map could not be read: it is not to be replaced
    std::atomic<BOOLEAN> MapRetireDue;    // the saved map is to be made unusable, which did not succeed yet
    FAST_MUTEX SwapLock;
    // The held files and the thread that holds them.
    std::atomic<LONG> ArmThreadStarting;
    std::atomic<HANDLE> ArmThreadHandle;
    // What the thread that was started came too early for: one more start of it is due when that is known.
    std::atomic<BOOLEAN> StorageToHold;  // there was no map location; also when the files were closed
    std::atomic<BOOLEAN> ConfigToHold;   // no named write had come, so the file system may not have served yet
    HANDLE SwapMapFileHandle KVR_GUARDED_BY(StorageMutex);
    HANDLE SwapFileHandle KVR_GUARDED_BY(StorageMutex);
    HANDLE SwapFileHandles[kNumberedSwapFiles] KVR_GUARDED_BY(StorageMutex);
    std::atomic<BOOLEAN> MapDirty;          // the trees changed since the last save
    std::atomic<LONGLONG> LastMapSaveTime;  // system time, 100 ns
    // No messages about its requests: set when the device has started. Until then the first reads of a boot are
    // told; a debugger that wants more clears them in the record.
    std::atomic<BOOLEAN> SuppressReadTrace;
    std::atomic<BOOLEAN> SuppressWriteTrace;
    std::atomic<BOOLEAN> SuppressControlTrace;
    std::atomic<ULONG> SwapState;
    // Where the device lies and how large it is: learnt at its start, atomic by LearnPlace.
    std::atomic<LONGLONG> DeviceBytes;  // 0: it did not tell, or nobody needed to know
    std::atomic<ULONG> DiskNumber;      // a disk's, or kUnknownDisk
    std::atomic<LONGLONG> TableEnd;     // a disk: its first bytes, below every volume on it
    std::atomic<LONGLONG>
        BackupTableStart;  // a disk: where its last bytes begin, above every volume; 0: unknown
    // What keeps the above sound when things happen at once.
    std::atomic<BOOLEAN> IsListed;            // linked in gVolumeList; changed with the link, under its lock
    std::atomic<BOOLEAN> ProtectionDeferred;  // storage removed or made: not protected before the next boot
    IO_REMOVE_LOCK RemoveLock;                // held by requests and threads that use the record
    KMUTEX StorageMutex;                      // the handles of the held files
    KMUTEX MapLoadMutex;                      // one load of the map; who comes meanwhile waits
    BOOLEAN MapLoading KVR_GUARDED_BY(MapLoadMutex);           // the owner itself came back during the load
    FAST_MUTEX WriteOrderLock;                                 // for one operation on the list at a time
    LIST_ENTRY WritesUnderWay KVR_GUARDED_BY(WriteOrderLock);  // as they began: redirect/write_order.h
    CHUNK_INDEX SwappedIndex KVR_GUARDED_BY(SwapLock);
    std::atomic<BOOLEAN> IsShutdownSeen;           // a shutdown request came to this volume
    KMUTEX UsageMutex;                             // one notification of the device's use at a time
    ULONG PagingFiles KVR_GUARDED_BY(UsageMutex);  // paging files that the device below is in the path of
};
using PVOLUME_EXTENSION = VOLUME_EXTENSION*;

[[nodiscard]] inline PVOLUME_EXTENSION VolumeOf(PDEVICE_OBJECT device) {
    return static_cast<PVOLUME_EXTENSION>(device->DeviceExtension);
}
