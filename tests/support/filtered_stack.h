// A device whose sectors are kept in memory, with the driver's filter above it.
#pragma once
#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include "driver/record/volume_list.h"
#include "formats/kvr_ioctl.h"
#include "platform/owners.h"
#include "swap/swap.h"
#include "tests/platform/host_stub.h"

using Bytes = std::vector<UCHAR>;

inline constexpr const char16_t* kDiskClass = u"{4d36e967-e325-11ce-bfc1-08002be10318}";  // case does not count

struct StackOptions {
    const char16_t* name = u"\\Device\\HarddiskVolume1";
    const char16_t* className = u"Volume";
    const char16_t* classGuid = u"{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
    ULONG characteristics = 0;
    USHORT sectorSize = 512;
    ULONG diskNumber = kUnknownDisk;  // what the device tells when it is asked; by default nothing
    LONGLONG bytes = 0;
};

// What arrives below the filter is written down; transfers move bytes of `data`, and everything else succeeds,
// unless the test says otherwise.
class FilteredStack {
public:
    using Answer = std::function<NTSTATUS(PIRP, PIO_STACK_LOCATION)>;
    struct Transfer {
        bool isWrite;
        LONGLONG offset;
        ULONG length;
        bool operator==(const Transfer&) const = default;
    };

    FilteredStack(PDRIVER_OBJECT lower, PDRIVER_OBJECT kvr, const StackOptions& options)
        : pdo(
              lower, [this](PDEVICE_OBJECT, PIRP irp) { return Receive(irp); }, nullptr, options.name),
          diskNumber(options.diskNumber),
          bytes(options.bytes) {
        pdo.object->Characteristics |= options.characteristics;
        pdo.object->SectorSize = options.sectorSize;
        host::SetDeviceProperty(pdo.object, DevicePropertyClassName, options.className);
        host::SetDeviceProperty(pdo.object, DevicePropertyClassGuid, options.classGuid);
        added = host::AddDeviceToStack(kvr, pdo.object);
        filter = NT_SUCCESS(added) ? host::TopOfStack(pdo.object) : nullptr;
        if (filter == pdo.object) filter = nullptr;
        volume = filter ? VolumeOf(filter) : nullptr;
    }
    // Lets go of what would keep the driver from giving the device up.
    ~FilteredStack() {
        answer = nullptr;
        if (!IsFiltered()) return;
        volume->IsProtected = FALSE;
        volume->PreloadConfigLocation[0] = 0;
        PoolPtr<MAP_LOCATION_ENTRY>(volume->MapLocation.exchange(nullptr)).Reset();
        EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(pdo.object, IRP_MN_REMOVE_DEVICE));
    }

    bool IsFiltered() const { return host::TopOfStack(pdo.object) != pdo.object; }
    NTSTATUS Start() { return host::SendPnp(pdo.object, IRP_MN_START_DEVICE); }
    NTSTATUS Control(ULONG code, const void* input = nullptr, ULONG length = 0) {
        return host::SendControl(filter, {.code = code, .input = input, .inputLength = length}).status;
    }
    NTSTATUS Flush() { return host::Send(filter, {.major = IRP_MJ_FLUSH_BUFFERS}).status; }

    // How often a request of this kind came down; `detail` is the minor function or the control code.
    int Arrived(UCHAR major, ULONG detail = 0) {
        const std::lock_guard guard(m_lock);
        return m_arrived[{major, detail}];
    }
    std::vector<Transfer> TakeTransfers() {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_transfers, {});
    }
    // What the device does with a request of its own.
    NTSTATUS Serve(PIRP irp) {
        PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
        if (location->MajorFunction == IRP_MJ_FLUSH_BUFFERS && onFlush) return stub::Complete(irp, onFlush());
        if (location->MajorFunction != IRP_MJ_READ && location->MajorFunction != IRP_MJ_WRITE)
            return stub::Complete(irp, STATUS_SUCCESS);
        const auto& place = location->Parameters.Read;
        const Transfer transfer = {location->MajorFunction == IRP_MJ_WRITE, place.ByteOffset.QuadPart,
                                   place.Length};
        NTSTATUS status = verdict ? verdict(transfer) : STATUS_SUCCESS;
        if (status == STATUS_SUCCESS) status = Move(irp, transfer);
        return stub::Complete(irp, status, status == STATUS_SUCCESS ? transfer.length - shortBy : 0);
    }

    stub::Device pdo;
    Answer answer;  // in place of Serve; set before requests come
    Bytes data = Bytes(0x800000);
    // Asked before each transfer; a status other than STATUS_SUCCESS is its answer, and nothing is moved.
    std::function<NTSTATUS(const Transfer&)> verdict;
    std::function<NTSTATUS()> onFlush;  // answers a flush; without it each succeeds
    ULONG shortBy = 0;                  // bytes that each transfer leaves out at its end, and says so
    std::vector<DISK_EXTENT> extents{{1, {.QuadPart = 0x100000}, {.QuadPart = 0x400000}}};
    ULONG claimedExtents = 1;
    const ULONG diskNumber;
    const LONGLONG bytes;
    bool tellsExtents = true;  // false: `answer` is asked for them too
    NTSTATUS added = STATUS_UNSUCCESSFUL;
    PDEVICE_OBJECT filter = nullptr;
    PVOLUME_EXTENSION volume = nullptr;

private:
    NTSTATUS Receive(PIRP irp) {
        PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
        const UCHAR major = location->MajorFunction;
        const bool control = major == IRP_MJ_DEVICE_CONTROL || major == IRP_MJ_INTERNAL_DEVICE_CONTROL;
        const ULONG code = location->Parameters.DeviceIoControl.IoControlCode;
        {
            const std::lock_guard guard(m_lock);
            ++m_arrived[{major, control ? code : location->MinorFunction}];
        }
        const bool asks = major == IRP_MJ_DEVICE_CONTROL;  // what is internal is answered by nobody
        if (asks && code == IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS && tellsExtents) return TellExtents(irp);
        if (asks && code == IOCTL_STORAGE_GET_DEVICE_NUMBER && diskNumber != kUnknownDisk)
            return Tell(irp, STORAGE_DEVICE_NUMBER{FILE_DEVICE_DISK, diskNumber, 0});
        if (asks && code == IOCTL_DISK_GET_LENGTH_INFO && bytes != 0)
            return Tell(irp, LARGE_INTEGER{.QuadPart = bytes});
        return answer ? answer(irp, location) : Serve(irp);
    }
    template <class Record>
    static NTSTATUS Tell(PIRP irp, const Record& record) {
        std::memcpy(irp->AssociatedIrp.SystemBuffer, &record, sizeof(record));
        return stub::Complete(irp, STATUS_SUCCESS, sizeof(record));
    }
    NTSTATUS TellExtents(PIRP irp) {
        auto* out = static_cast<PVOLUME_DISK_EXTENTS>(irp->AssociatedIrp.SystemBuffer);
        out->NumberOfDiskExtents = claimedExtents;
        std::copy(extents.begin(), extents.end(), out->Extents);
        return stub::Complete(irp, STATUS_SUCCESS, 8 + extents.size() * sizeof(DISK_EXTENT));
    }
    NTSTATUS Move(PIRP irp, const Transfer& transfer) {
        const std::lock_guard lock(m_lock);
        m_transfers.push_back(transfer);
        if (transfer.offset < 0 || transfer.offset + ULONGLONG{transfer.length} > data.size())
            return STATUS_INVALID_PARAMETER;
        if (transfer.length == 0) return STATUS_SUCCESS;
        void* buffer = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute);
        UCHAR* sectors = data.data() + transfer.offset;
        const ULONG length = transfer.length - shortBy;
        transfer.isWrite ? std::memcpy(sectors, buffer, length) : std::memcpy(buffer, sectors, length);
        return STATUS_SUCCESS;
    }
    std::mutex m_lock;
    std::vector<Transfer> m_transfers;
    std::map<std::pair<UCHAR, ULONG>, int> m_arrived;
};
