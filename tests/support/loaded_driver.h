// The driver, freshly loaded, above devices whose sectors are kept in memory, with a registry in memory.
#pragma once
#include "config/config_files.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/entry.h"
#include "driver/record/names.h"
#include "driver/record/requests.h"
#include "driver/record/threads.h"
#include "platform/host/check/injector.h"
#include "platform/host/check/verifier.h"
#include "platform/host/io/user_mode.h"
#include "platform/host/memory/pool.h"
#include "platform/host/rtl/debug_sink.h"
#include "platform/host/sync/thread.h"
#include "swap/chunk_maps.h"
#include "swap/map_boot.h"
#include "swap/swap_file.h"
#include "tests/support/filtered_stack.h"
#include "tests/support/map_invariants.h"
#include "tests/support/memory_registry.h"

inline constexpr ULONG S = 512;

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

inline LARGE_INTEGER Large(LONGLONG value) {
    LARGE_INTEGER large;
    large.QuadPart = value;
    return large;
}

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

// Every test is a boot of its own, with one fixed volume; whatever the driver allocated for a device is gone
// with the device.
class LoadedDriver : public stub::Kernel {
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
        stub::Kernel::SetUp();
        m_blocks = host::PoolUsage(kPoolTag).blocks;
        m_executable = host::ExecutableMemory();
        ASSERT_EQ(STATUS_SUCCESS, host::LoadDriver(DriverEntry, u"\\Driver\\kvr", kvr));
        mark = host::DebugMark();
        host::SetRegistryStore(&registry);
        device = &AddStarted();
        volume = device->volume;
        volume->ArmThreadHandle = device;  // stands for a thread that was started
    }
    void TearDown() override {
        host::DisarmFaults();
        host::JoinSystemThreads();
        for (const auto& stack : stacks) {
            if (stack->IsFiltered()) {
                EXPECT_EQ("", support::CheckMaps(stack->volume));
            }
        }
        EXPECT_EQ(0u, host::AssertionCount());
        host::ResetAssertionCount();
        if (volume->ArmThreadHandle == device) volume->ArmThreadHandle = nullptr;
        KernelHandle(gConfigFileHandle.exchange(nullptr)).Reset();
        ULONGLONG kept = m_blocks;  // what lives as long as the driver
        for (SWAP_FILE* swapFile = gSwapFileList; swapFile; swapFile = swapFile->pNext) ++kept;
        for (PROTECTED_VOLUME* entry = gProtectedVolumeList; entry; entry = entry->Next) ++kept;
        stacks.clear();
        host::JoinSystemThreads();
        if (gControlDevice) IoDeleteDevice(gControlDevice);
        EXPECT_EQ(kept, host::PoolUsage(kPoolTag).blocks) << "pool blocks of the driver are left";
        EXPECT_EQ(m_executable, host::ExecutableMemory());
        stub::Kernel::TearDown();
    }

    FilteredStack& Add(const StackOptions& options = {}) {
        stacks.push_back(std::make_unique<FilteredStack>(driver, kvr, options));
        EXPECT_EQ(STATUS_SUCCESS, stacks.back()->added);
        return *stacks.back();
    }
    // A volume lies on these disks.
    FilteredStack& AddStarted(const StackOptions& options = {}, const std::vector<ULONG>& disks = {0}) {
        FilteredStack& stack = Add(options);
        stack.extents.clear();
        for (const ULONG disk : disks) stack.extents.push_back({disk, {}, {}});
        stack.claimedExtents = static_cast<ULONG>(disks.size());
        EXPECT_EQ(STATUS_SUCCESS, stack.Start());
        return stack;
    }
    FilteredStack& AddDisk(const char16_t* name) {
        return AddStarted({.name = name, .className = u"DiskDrive", .classGuid = kDiskClass});
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

    PDRIVER_OBJECT kvr = nullptr;
    ULONGLONG mark = 0;
    support::MemoryRegistry registry;
    std::vector<std::unique_ptr<FilteredStack>> stacks;
    FilteredStack* device = nullptr;
    PVOLUME_EXTENSION volume = nullptr;

private:
    ULONGLONG m_blocks = 0;
    ULONG m_executable = 0;
};
