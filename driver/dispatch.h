// Driver entry, the control device, and the helpers with which every dispatch routine handles requests.
#pragma once
#include "driver/volume_extension.h"

extern PDEVICE_OBJECT gControlDevice;
extern BOOLEAN gControlOpen;  // under gControlLock
extern KSPIN_LOCK gControlLock;
extern LIST_ENTRY gVolumeList;  // VOLUME_EXTENSION, in creation order, under gVolumeListLock
extern FAST_MUTEX gVolumeListLock;
extern RTL_OSVERSIONINFOEXW gVersionInfo;
extern KEVENT gBootStatusEvent;  // set when the boot status file is written

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
NTSTATUS AddDeviceStandBy(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
NTSTATUS KvrCreate(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrClose(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrDefaultDispatch(PDEVICE_OBJECT device, PIRP request);
[[nodiscard]] NTSTATUS QueryOsVersion();
[[nodiscard]] BOOLEAN IsOsVersionSupported();

// Sets status and information, completes the request without a boost and returns the status.
NTSTATUS CompleteRequest(PIRP request, NTSTATUS status, ULONG_PTR information = 0);
// Hands the request to Target; nothing of it may be touched afterwards.
NTSTATUS PassIrpDown(PDEVICE_OBJECT device, PIRP request);
// Sends the request to Target and waits; it then belongs to the caller again, who must complete it.
[[nodiscard]] NTSTATUS ForwardIrpSynchronously(PDEVICE_OBJECT device, PIRP request);
NTSTATUS SyncCompletion(PDEVICE_OBJECT device, PIRP request, PVOID event);

// Is the record linked in gVolumeList? Reads its mark, which changes with the link under the list's lock, so it
// is safe against records that come and go.
[[nodiscard]] BOOLEAN IsVolumeInList(PVOLUME_EXTENSION volume);
void LinkVolume(PVOLUME_EXTENSION volume);    // at the tail; takes gVolumeListLock
void UnlinkVolume(PVOLUME_EXTENSION volume);  // takes gVolumeListLock; idempotent

// What a message shows of an address: its low 32 bits.
inline ULONG TraceAddress(const void* address) {
    return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(address));
}

// Keeps a filter device's record alive for one request (or thread). Every dispatch routine that uses the record
// begins with one; Failed() means that removal has begun: complete the request with STATUS_DELETE_PENDING.
class RecordHold {
public:
    RecordHold(PVOLUME_EXTENSION volume, PVOID tag);
    ~RecordHold();
    RecordHold(const RecordHold&) = delete;
    RecordHold& operator=(const RecordHold&) = delete;
    [[nodiscard]] BOOLEAN Failed() const { return m_volume == nullptr; }

private:
    PVOLUME_EXTENSION m_volume;
    PVOID m_tag;
};
