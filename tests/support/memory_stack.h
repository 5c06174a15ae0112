// The loaded driver above volumes and disks whose sectors are kept in memory, with a registry in memory.
#pragma once
#include <cstring>
#include "config/config_files.h"
#include "config/storage.h"
#include "platform/host/check/injector.h"
#include "swap/swap_file.h"
#include "tests/support/loaded_driver.h"
#include "tests/support/memory_registry.h"

// Answers a stack's reads and writes from memory and remembers them.
class StackMemory {
public:
    struct Transfer {
        bool isWrite;
        LONGLONG offset;
        ULONG length;
        bool operator==(const Transfer&) const = default;
    };

    StackMemory(FilteredStack& below, SIZE_T bytes) : stack(below), data(bytes) {
        stack.answer = [this](PIRP irp, PIO_STACK_LOCATION location) { return Serve(irp, location); };
    }
    std::vector<Transfer> TakeTransfers() {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_transfers, {});
    }

    FilteredStack& stack;
    std::vector<UCHAR> data;
    // Asked before each transfer; a status other than STATUS_SUCCESS is its answer, and nothing is moved.
    std::function<NTSTATUS(const Transfer&)> verdict;

private:
    NTSTATUS Serve(PIRP irp, PIO_STACK_LOCATION location) {
        if (location->MajorFunction != IRP_MJ_READ && location->MajorFunction != IRP_MJ_WRITE)
            return stub::Complete(irp, STATUS_SUCCESS);
        const auto& place = location->Parameters.Read;
        const Transfer transfer = {location->MajorFunction == IRP_MJ_WRITE, place.ByteOffset.QuadPart,
                                   place.Length};
        NTSTATUS status = verdict ? verdict(transfer) : STATUS_SUCCESS;
        if (status == STATUS_SUCCESS) status = Move(irp, transfer);
        return stub::Complete(irp, status, status == STATUS_SUCCESS ? transfer.length : 0);
    }
    NTSTATUS Move(PIRP irp, const Transfer& transfer) {
        const std::lock_guard lock(m_lock);
        m_transfers.push_back(transfer);
        if (transfer.offset < 0 || transfer.offset + ULONGLONG{transfer.length} > data.size())
            return STATUS_INVALID_PARAMETER;
        void* buffer = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        UCHAR* sectors = data.data() + transfer.offset;
        transfer.isWrite ? std::memcpy(sectors, buffer, transfer.length)
                         : std::memcpy(buffer, sectors, transfer.length);
        return STATUS_SUCCESS;
    }

    std::vector<Transfer> m_transfers;
    std::mutex m_lock;
};

// A file object as a file system's requests carry it.
struct TestFile {
    explicit TestFile(std::u16string path) : name(std::move(path)) {
        object.FileName = {static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                           static_cast<USHORT>(name.size() * sizeof(WCHAR)), name.data()};
    }
    TestFile(const TestFile&) = delete;
    std::u16string name;
    FILE_OBJECT object{};
};

// One fixed volume is there from the start.
class MemoryStackTest : public LoadedDriver {
protected:
    static constexpr char16_t kName[] = u"\\Device\\HarddiskVolume1";

    void SetUp() override {
        LoadedDriver::SetUp();
        host::SetRegistryStore(&registry);
        device = &AddMemory();
        volume = device->stack.volume;
        volume->ArmThreadHandle = device;  // stands for a thread that was started
    }
    void TearDown() override {
        host::DisarmFaults();
        host::JoinSystemThreads();
        if (volume->ArmThreadHandle == device) volume->ArmThreadHandle = nullptr;
        KernelHandle(gConfigFileHandle.exchange(nullptr)).Reset();
        // What lives as long as the driver.
        for (SWAP_FILE* swapFile = gSwapFileList; swapFile; swapFile = swapFile->pNext) KeepBlock();
        for (PROTECTED_VOLUME* entry = gProtectedVolumeList; entry; entry = entry->Next) KeepBlock();
        LoadedDriver::TearDown();
    }

    StackMemory& AddMemory(const StackOptions& options = {}, const std::vector<ULONG>& disks = {0}) {
        FilteredStack& stack = Add(options);
        memories.push_back(std::make_unique<StackMemory>(stack, 0x800000));
        stack.extents.clear();
        for (const ULONG disk : disks) stack.extents.push_back({disk, {}, {}});
        stack.claimedExtents = static_cast<ULONG>(disks.size());
        EXPECT_EQ(STATUS_SUCCESS, stack.Start());
        return *memories.back();
    }
    StackMemory& AddMemoryDisk(const char16_t* name) {
        return AddMemory({.name = name, .className = u"DiskDrive", .classGuid = kDiskClass});
    }

    static host::Outcome Send(PVOLUME_EXTENSION to, UCHAR major, LONGLONG offset, std::vector<UCHAR>& data,
                              PFILE_OBJECT file = nullptr) {
        return host::Send(to->FilterDevice, {.major = major,
                                             .length = static_cast<ULONG>(data.size()),
                                             .offset = offset,
                                             .buffer = data.data(),
                                             .originalFile = file});
    }
    static host::Outcome Write(PVOLUME_EXTENSION to, LONGLONG offset, std::vector<UCHAR> data,
                               PFILE_OBJECT file = nullptr) {
        return Send(to, IRP_MJ_WRITE, offset, data, file);
    }
    bool Holds(LONGLONG offset, const std::vector<UCHAR>& data) const {
        return std::memcmp(&device->data[offset], data.data(), data.size()) == 0;
    }

    support::MemoryRegistry registry;
    std::vector<std::unique_ptr<StackMemory>> memories;
    StackMemory* device = nullptr;
    PVOLUME_EXTENSION volume = nullptr;
};
