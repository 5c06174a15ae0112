#include "platform/owners.h"
#include "redirect/write_cache.h"
#include "tests/support/loaded_driver.h"
#include "tests/support/paged_out_text.h"

namespace {

class WriteCache : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        Protect();
        swapFile = Attach();
    }
    // No space is known until GiveSpace.
    void TakeSpace() { swapFile->ulFreeBytes = 0; }
    void GiveSpace() {
        FastMutexLock lock(volume->SwapLock);
        MirrorFreeBytes(volume);
    }
    void Queue(LONGLONG offset, ULONG length, UCHAR fill) {
        Bytes data(length, fill);
        const LARGE_INTEGER at = Large(offset);
        EXPECT_EQ(STATUS_SUCCESS, AddBufferToCache(volume, &at, data.data(), length));
    }
    SWAP_FILE* swapFile = nullptr;
};

TEST_F(WriteCache, EntryTooLargeStopsTheFlushAndStaysFirst) {
    const ULONG large = 0xA00000;
    Queue(0, 0x1000, 1);
    Queue(0x10000, large, 2);
    Queue(0x20000, 0x1000, 3);
    PENDING_CHUNK* chain = nullptr;
    LARGE_INTEGER offset = {};
    const auto taken = static_cast<ULONG>(Free() - (large - 512));
    EXPECT_EQ(STATUS_SUCCESS, LockFreeChunks(volume, &offset, taken, &chain, nullptr));
    AddFree(kSwap - 0x1000, 0x1000);  // for the first entry
    EXPECT_EQ(STATUS_DEVICE_BUSY, FlushWriteCache(volume)) << "one sector too little behind the first entry";
    {
        KernelMutexLock lock(swapFile->CacheLock);
        PLIST_ENTRY first = swapFile->CacheList.Flink;
        EXPECT_EQ(large, CONTAINING_RECORD(first, WRITE_CACHE_ENTRY, ListEntry)->uLength);
        EXPECT_EQ(&swapFile->CacheList, first->Flink->Flink);
    }
    AddFree(kSwap - 0x2000, 512);
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume)) << "an entry as large as the space is tried";
    EXPECT_TRUE(IsWriteCacheEmpty(swapFile));
    EXPECT_EQ(STATUS_SUCCESS, UnlockFreeChunks(volume, chain));
}

TEST_F(WriteCache, RequestsJoinAQueueThatCannotBeWritten) {
    using host::Pages;
    constexpr NTSTATUS none = STATUS_INSUFFICIENT_RESOURCES;
    const struct {
        Pages pages;
        ULONGLONG fault;  // the allocation that fails
        NTSTATUS status;
    } cases[] = {{Pages::Locked, 0, 0},  {Pages::Unlocked, 0, 0},    {Pages::Bad, 0, STATUS_ACCESS_VIOLATION},
                 {Pages::None, 0, none}, {Pages::Unlocked, 1, none}, {Pages::Unlocked, 2, none}};
    Bytes expected(S, 1);
    Queue(0, S, 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        TakeSpace();
        device->TakeTransfers();
        Bytes data = Data(S, 20 + static_cast<int>(&c - cases));
        const host::Outcome queued = Starved(c.fault, [&] {
            return host::Send(volume->FilterDevice,
                              {.major = IRP_MJ_WRITE, .pages = c.pages, .length = S, .buffer = data.data()});
        });
        EXPECT_EQ(c.status, queued.status);
        EXPECT_EQ(c.status == 0 ? S : 0, queued.information);
        EXPECT_TRUE(device->TakeTransfers().empty());
        if (c.status == 0) expected = data;
    }
    Bytes nothing;
    EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_WRITE, 0, nothing).status);
    GiveSpace();
    EXPECT_EQ(STATUS_SUCCESS, Write(volume, S, Bytes(S, 2)).status) << "after what waits";
    EXPECT_TRUE(IsWriteCacheEmpty(swapFile));
    EXPECT_EQ(expected, Read(0, S)) << "the last one that was accepted";
}

// The caller's status block may be gone by then: what touching it raises ends here.
TEST_F(WriteCache, AStatusBlockThatIsGoneFailsTheRequestAlone) {
    TakeSpace();
    Queue(0, S, 1);
    Bytes data(S, 2);
    LARGE_INTEGER at = {};
    support::PagedOutText gone(u"text");
    gone.raises = STATUS_ACCESS_VIOLATION;
    auto* block = reinterpret_cast<PIO_STATUS_BLOCK>(gone.string.Buffer);
    PIRP irp = IoBuildAsynchronousFsdRequest(IRP_MJ_WRITE, volume->FilterDevice, data.data(), S, &at, block);
    ASSERT_NE(nullptr, irp);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, IofCallDriver(volume->FilterDevice, irp));
    EXPECT_EQ(1, gone.faults);
    GiveSpace();
}

// What a flush and a shutdown write out, and of which volumes.
TEST_F(WriteCache, FlushAndShutdownWriteTheQueueOfRedirectedVolumes) {
    SWAP_FILE* attached = swapFile;
    Locate({{0x1000, 4096}});
    const struct {
        const char* what;
        std::function<void(bool)> prevent;
    } cases[] = {
        {"nothing", [](bool) {}},
        {"switched off", [](bool on) { gTesselEnabled = !on; }},
        {"a disk", [&](bool on) { volume->IsDisk = volume->IsDetached = on; }},
        {"not listed", [&](bool on) { volume->IsListed = !on; }},
        {"no storage", [&](bool on) { volume->SwapFile = on ? nullptr : attached; }},
        {"not protected", [&](bool on) { volume->IsProtected = !on, volume->ProtectionDeferred = on; }},
    };
    volume->IsProtected = TRUE;
    for (const auto& c : cases) {
        for (const UCHAR major : {IRP_MJ_FLUSH_BUFFERS, IRP_MJ_SHUTDOWN}) {
            SCOPED_TRACE(c.what + std::to_string(major));
            const bool written = &c == cases, shutdown = major == IRP_MJ_SHUTDOWN;
            TakeSpace();
            Queue(0x10000, S, static_cast<UCHAR>(major));
            GiveSpace();
            volume->MapDirty = TRUE;
            c.prevent(true);
            const int arrived = device->Arrived(major);
            EXPECT_EQ(STATUS_SUCCESS, host::Send(volume->FilterDevice, {.major = major}).status);
            EXPECT_EQ(shutdown ? arrived : arrived + 1, device->Arrived(major));
            c.prevent(false);
            EXPECT_EQ(written, IsWriteCacheEmpty(swapFile) != FALSE);
            EXPECT_EQ(written && shutdown, !volume->MapDirty) << "the map holds what was queued";
            EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume));
            EXPECT_EQ(Bytes(S, static_cast<UCHAR>(major)), Read(0x10000, S));
        }
    }
    EXPECT_EQ(6u, TimesSaid(mark, "Kvr!KvrShutdown"));
}

TEST_F(WriteCache, RemovalDropsTheVolumesEntriesFromASharedQueue) {
    FilteredStack& other = AddStarted({.name = u"\\Device\\HarddiskVolume2"});
    PVOLUME_EXTENSION leaving = other.volume;
    Attach(kName, leaving);
    Queue(0, 0x1000, 1);
    Bytes data(0x1000, 2);
    LARGE_INTEGER at = {};
    EXPECT_EQ(STATUS_SUCCESS, AddBufferToCache(leaving, &at, data.data(), 0x1000));
    Queue(0x8000, 0x1000, 3);
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(other.pdo.object, IRP_MN_REMOVE_DEVICE));
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume));
    EXPECT_EQ(Bytes(0x1000, 1), Read(0, 0x1000));
    EXPECT_EQ(Bytes(0x1000, 3), Read(0x8000, 0x1000));
}

}  // namespace
