// The driver on the host kernel, freshly loaded, above stand-in volumes and disks.
#pragma once
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "formats/kvr_ioctl.h"
#include "driver/entry.h"
#include "driver/record/names.h"
#include "driver/record/requests.h"
#include "driver/record/threads.h"
#include "driver/record/volume_list.h"
#include "platform/host/rtl/debug_sink.h"
#include "platform/host/memory/pool.h"
#include "platform/host/sync/thread.h"
#include "platform/host/io/user_mode.h"
#include "platform/owners.h"
#include "swap/swap.h"
#include "tests/platform/host_stub.h"

inline UNICODE_STRING Counted(const char16_t* text) {
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    return string;
}

inline SIZE_T TimesSaid(ULONGLONG mark, const std::string& part) {
    const auto lines = host::DebugLinesSince(mark);
    return static_cast<SIZE_T>(std::count_if(lines.begin(), lines.end(),
                                             [&](const auto& line) { return line.find(part) != line.npos; }));
}

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

// A device with the driver's filter above it. What arrives below is written down, and succeeds unless the test
// says otherwise.
class FilteredStack {
public:
    using Answer = std::function<NTSTATUS(PIRP, PIO_STACK_LOCATION)>;

    FilteredStack(PDRIVER_OBJECT lower, PDRIVER_OBJECT kvr, const StackOptions& options)
        : pdo(
              lower, [this](PDEVICE_OBJECT, PIRP irp) { return Serve(irp); }, nullptr, options.name),
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

    stub::Device pdo;
    Answer answer;  // set before requests come
    std::vector<DISK_EXTENT> extents{{1, {.QuadPart = 0x100000}, {.QuadPart = 0x400000}}};
    ULONG claimedExtents = 1;
    const ULONG diskNumber;
    const LONGLONG bytes;
    bool tellsExtents = true;  // false: `answer` is asked for them too
    NTSTATUS added = STATUS_UNSUCCESSFUL;
    PDEVICE_OBJECT filter = nullptr;
    PVOLUME_EXTENSION volume = nullptr;

private:
    NTSTATUS Serve(PIRP irp) {
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
        return answer ? answer(irp, location) : stub::Complete(irp, STATUS_SUCCESS);
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

    std::mutex m_lock;
    std::map<std::pair<UCHAR, ULONG>, int> m_arrived;
};

// Every test is a boot of its own; whatever the driver allocated for a device is gone with the device.
class LoadedDriver : public stub::Kernel {
protected:
    void SetUp() override {
        stub::Kernel::SetUp();
        m_blocks = host::PoolUsage(kPoolTag).blocks;
        m_executable = host::ExecutableMemory();
        ASSERT_EQ(STATUS_SUCCESS, host::LoadDriver(DriverEntry, u"\\Driver\\kvr", kvr));
        mark = host::DebugMark();
    }
    void TearDown() override {
        stacks.clear();
        host::JoinSystemThreads();
        if (gControlDevice) IoDeleteDevice(gControlDevice);
        EXPECT_EQ(m_blocks + m_kept, host::PoolUsage(kPoolTag).blocks) << "pool blocks of the driver are left";
        EXPECT_EQ(m_executable, host::ExecutableMemory());
        stub::Kernel::TearDown();
    }

    FilteredStack& Add(const StackOptions& options = {}) {
        stacks.push_back(std::make_unique<FilteredStack>(driver, kvr, options));
        EXPECT_EQ(STATUS_SUCCESS, stacks.back()->added);
        return *stacks.back();
    }
    FilteredStack& AddStarted(const StackOptions& options = {}) {
        FilteredStack& stack = Add(options);
        EXPECT_EQ(STATUS_SUCCESS, stack.Start());
        return stack;
    }
    void AddDisk(const char16_t* name = u"\\Device\\Harddisk1\\DR1") {
        AddStarted({.name = name, .className = u"DiskDrive", .classGuid = kDiskClass});
    }
    void KeepBlock() { ++m_kept; }

    PDRIVER_OBJECT kvr = nullptr;
    ULONGLONG mark = 0;
    std::vector<std::unique_ptr<FilteredStack>> stacks;

private:
    ULONGLONG m_blocks = 0, m_kept = 0;
    ULONG m_executable = 0;
};
