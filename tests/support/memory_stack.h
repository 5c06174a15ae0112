// The loaded driver above volumes and disks whose sectors are kept in memory, with a registry in memory.
#pragma once
#include <cstring>
#include "config/config_files.h"
#include "config/storage.h"
#include "platform/host/check/injector.h"
#include "platform/host/check/verifier.h"
#include "swap/swap_file.h"
#include "swap/chunk_maps.h"
#include "swap/map_boot.h"
#include "tests/support/loaded_driver.h"
#include "tests/support/map_invariants.h"
#include "tests/support/memory_registry.h"

using Bytes = std::vector<UCHAR>;
inline constexpr ULONG S = 512;

inline LARGE_INTEGER Large(LONGLONG value) {
    LARGE_INTEGER large;
    large.QuadPart = value;
    return large;
}

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
    Bytes data;
    // Asked before each transfer; a status other than STATUS_SUCCESS is its answer, and nothing is moved.
    std::function<NTSTATUS(const Transfer&)> verdict;
    std::function<NTSTATUS()> onFlush;  // answers a flush; without it each succeeds
    ULONG shortBy = 0;                  // bytes that each transfer leaves out at its end, and says so

private:
    NTSTATUS Serve(PIRP irp, PIO_STACK_LOCATION location) {
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
    static constexpr LONGLONG kSwap = 0x400000;  // the swap's space begins here

    struct Piece {
        LONGLONG volumeOffset, swapOffset;
        ULONG length;
        bool operator==(const Piece&) const = default;
    };
    using FreeList = std::vector<std::pair<LONGLONG, ULONG>>;

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
        for (const auto& memory : memories) {
            if (memory->stack.IsFiltered()) {
                EXPECT_EQ("", support::CheckMaps(memory->stack.volume));
            }
        }
        EXPECT_EQ(0u, host::AssertionCount());
        host::ResetAssertionCount();
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

    static host::Outcome Send(PVOLUME_EXTENSION to, UCHAR major, LONGLONG offset, Bytes& data,
                              PFILE_OBJECT file = nullptr) {
        return host::Send(to->FilterDevice, {.major = major,
                                             .length = static_cast<ULONG>(data.size()),
                                             .offset = offset,
                                             .buffer = data.data(),
                                             .originalFile = file});
    }
    static host::Outcome Write(PVOLUME_EXTENSION to, LONGLONG offset, Bytes data, PFILE_OBJECT file = nullptr) {
        return Send(to, IRP_MJ_WRITE, offset, data, file);
    }
    Bytes Read(LONGLONG offset, ULONG length) {
        Bytes data(length, 0xEE);
        EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_READ, offset, data).status);
        return data;
    }
    UCHAR* At(LONGLONG offset) { return &device->data[offset]; }
    Bytes OnDisk(LONGLONG offset, ULONG length) { return {At(offset), At(offset) + length}; }
    bool Holds(LONGLONG offset, const Bytes& data) { return OnDisk(offset, data.size()) == data; }
    static Bytes Data(ULONG length, int seed) {
        Bytes data(length);
        for (ULONG i = 0; i < length; ++i) data[i] = static_cast<UCHAR>(seed * 31 + i / S * 3 + i);
        return data;
    }
    std::string LastSaid() const { return host::DebugLinesSince(mark).back(); }
    bool Said(const std::string& part) const { return TimesSaid(mark, part) != 0; }

    // ---- the volume's storage ------------------------------------------------------------------------------
    // Protected by an entry of the list, with `megabytes` of space of which the disk holds the lowest only.
    void Protect(ULONG megabytes = 64) {
        List(kName, PV_PROTECTED | PV_EXPLICIT);
        gTesselEnabled = TRUE;
        volume->SwapMapLoaded = TRUE;
        for (LONGLONG i = 0; i < megabytes; ++i) AddFree(volume, kSwap + i * 0x100000, 0x100000);
    }
    // Gives `from` the storage of the volume of that name.
    static SWAP_FILE* Attach(const char16_t* name, PVOLUME_EXTENSION from) {
        UNICODE_STRING counted = Counted(name);
        EXPECT_EQ(STATUS_SUCCESS, GetSwapFile(&counted, from));
        return from->SwapFile;
    }
    SWAP_FILE* Attach() { return Attach(kName, volume); }
    static void List(const char16_t* name, ULONG flags) {
        UNICODE_STRING id = Counted(name);
        EXPECT_EQ(STATUS_SUCCESS, AddProtectedVolume(&id, flags));
    }
    // What `operation` returns when the n-th allocation in it fails; 0: none does.
    template <class Operation>
    static auto Starved(ULONGLONG n, const Operation& operation) {
        if (n != 0) host::FailCall(host::FaultBit(host::Fault::Allocate), n);
        const auto result = operation();
        host::DisarmFaults();
        return result;
    }
    static void AddFree(PVOLUME_EXTENSION to, LONGLONG offset, ULONG length) {
        const LARGE_INTEGER at = Large(offset);
        EXPECT_EQ(STATUS_SUCCESS, AddSwapFreeChunk(to, &at, length));
    }
    void AddFree(LONGLONG offset, ULONG length) { AddFree(volume, offset, length); }
    // Records a redirection as a write would, with space that is not in FreeChunks.
    void Redirect(LONGLONG volumeOffset, LONGLONG swapOffset, ULONG length, ULONG bVolatile = 0) {
        PENDING_CHUNK* chunk = CreatePendingChunk();
        ASSERT_NE(nullptr, chunk);
        *chunk = {Large(volumeOffset), Large(swapOffset), length, nullptr};
        EXPECT_EQ(STATUS_SUCCESS, CommitChunks(volume, chunk, bVolatile));
    }
    NTSTATUS Lock(LONGLONG offset, ULONG length, PENDING_CHUNK** chain, PIRP request = nullptr) {
        const LARGE_INTEGER at = Large(offset);
        return LockFreeChunks(volume, &at, length, chain, request);
    }
    ULONG64 Free() KVR_NO_ANALYSIS { return volume->SwapFreeBytes; }
    ULONG64 Used() KVR_NO_ANALYSIS { return volume->SwapUsedBytes; }
    // The records of a tree in their order.
    template <class Record>
    static std::vector<Record> RecordsOf(TREE* tree) {
        std::vector<Record> records;
        for (TREE_NODE* node = tree_first(tree, tree->Root); node; node = tree_next(tree, node))
            records.push_back(*static_cast<const Record*>(node->Record));
        return records;
    }
    std::vector<Piece> Swapped() KVR_NO_ANALYSIS {
        std::vector<Piece> pieces;
        for (const auto& c : RecordsOf<SWAPPED_CHUNK>(&volume->SwappedChunks))
            pieces.push_back({c.liVolumeOffset.QuadPart, c.liSwapOffset.QuadPart, c.uLength});
        return pieces;
    }
    FreeList FreeSpace() KVR_NO_ANALYSIS {
        FreeList list;
        for (const auto& c : RecordsOf<FREE_CHUNK>(&volume->FreeChunks))
            list.emplace_back(c.liSwapOffset.QuadPart, c.uLength);
        return list;
    }
    // The runs of the saved map, as a boot finds them.
    static void Locate(PVOLUME_EXTENSION of, const std::vector<MAP_LOCATION_ENTRY>& runs) {
        const SIZE_T bytes = runs.size() * sizeof(MAP_LOCATION_ENTRY);
        auto* location = static_cast<MAP_LOCATION_ENTRY*>(AllocatePool(bytes));
        std::memcpy(location, runs.data(), bytes);
        PublishMapLocation(of, location, static_cast<ULONG>(bytes));
    }
    void Locate(const std::vector<MAP_LOCATION_ENTRY>& runs) { Locate(volume, runs); }
    void ForgetMaps() { ResetSwapMaps(volume->FilterDevice); }

    support::MemoryRegistry registry;
    std::vector<std::unique_ptr<StackMemory>> memories;
    StackMemory* device = nullptr;
    PVOLUME_EXTENSION volume = nullptr;
};
