#include "platform/host/pool.h"
#include "platform/owners.h"
#include "redirect/write_cache.h"
#include "tests/redirect/redirect_fixture.h"

namespace {

class WriteCache : public RedirectTest {
protected:
    void SetUp() override {
        RedirectTest::SetUp();
        Protect();
        UNICODE_STRING name = Counted(kName);
        ASSERT_EQ(STATUS_SUCCESS, GetSwapFile(&name, volume));
        swapFile = volume->SwapFile;
    }
    void Queue(LONGLONG offset, ULONG length, UCHAR fill) {
        std::vector<UCHAR> data(length, fill);
        LARGE_INTEGER at;
        at.QuadPart = offset;
        EXPECT_EQ(STATUS_SUCCESS, AddBufferToCache(volume, &at, data.data(), length));
    }
    std::vector<UCHAR> ReadBack(LONGLONG offset, ULONG length) {
        std::vector<UCHAR> data(length);
        EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_READ, offset, data).status);
        return data;
    }
    SWAP_FILE* swapFile = nullptr;
};

TEST_F(WriteCache, FlushWritesTheQueueInItsOrder) {
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume));
    EXPECT_TRUE(IsWriteCacheEmpty(nullptr));
    Queue(0, 0x10000, 1);
    Queue(0x8000, 0x1000, 2);
    Queue(0x8800, 0x200, 3);
    volume->SwapFile = nullptr;
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume)) << "no storage, nothing to do";
    volume->SwapFile = swapFile;
    EXPECT_FALSE(IsWriteCacheEmpty(swapFile));
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume));
    EXPECT_TRUE(IsWriteCacheEmpty(swapFile));
    EXPECT_EQ(std::vector<UCHAR>(0x8000, 1), ReadBack(0, 0x8000));
    EXPECT_EQ(std::vector<UCHAR>(0x800, 2), ReadBack(0x8000, 0x800));
    EXPECT_EQ(std::vector<UCHAR>(0x200, 3), ReadBack(0x8800, 0x200));
    EXPECT_TRUE(Holds(0, std::vector<UCHAR>(0x10000, 0))) << "the volume's own sectors";
}

TEST_F(WriteCache, EntryTooLargeStopsTheFlushAndStaysFirst) {
    const ULONG large = 0xA00000;
    Queue(0, 0x1000, 1);
    Queue(0x10000, large, 2);
    Queue(0x20000, 0x1000, 3);
    PENDING_CHUNK* chain = nullptr;
    LARGE_INTEGER offset = {};
    const auto taken = static_cast<ULONG>(FreeBytes(volume) - (large - 512));
    EXPECT_EQ(STATUS_SUCCESS, LockFreeChunks(volume, &offset, taken, &chain, nullptr));
    AddFree(volume, kSwapStart - 0x1000, 0x1000);  // for the first entry
    EXPECT_EQ(STATUS_DEVICE_BUSY, FlushWriteCache(volume)) << "one sector too little behind the first entry";
    {
        KernelMutexLock lock(swapFile->CacheLock);
        PLIST_ENTRY first = swapFile->CacheList.Flink;
        EXPECT_EQ(large, CONTAINING_RECORD(first, WRITE_CACHE_ENTRY, ListEntry)->uLength);
        EXPECT_EQ(&swapFile->CacheList, first->Flink->Flink);
    }
    AddFree(volume, kSwapStart - 0x2000, 512);
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume)) << "an entry as large as the space is tried";
    EXPECT_TRUE(IsWriteCacheEmpty(swapFile));
    EXPECT_EQ(STATUS_SUCCESS, UnlockFreeChunks(volume, chain));
}

TEST_F(WriteCache, RequestsJoinAQueueThatCannotBeWritten) {
    Queue(0, 0x1000, 1);
    swapFile->ulFreeBytes = 0;
    device->TakeTransfers();
    std::vector<UCHAR> data(0x1000, 9);
    const host::Outcome queued = Write(volume, 0, data);
    EXPECT_EQ(STATUS_SUCCESS, queued.status);
    EXPECT_EQ(0x1000u, queued.information);
    EXPECT_TRUE(device->TakeTransfers().empty());
    {
        FastMutexLock lock(volume->SwapLock);
        MirrorFreeBytes(volume);
    }
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume));
    EXPECT_EQ(data, ReadBack(0, 0x1000));
}

TEST_F(WriteCache, RequestThatCannotBeQueuedFailsAndLeavesNothing) {
    Queue(0, 0x1000, 1);
    swapFile->ulFreeBytes = 0;
    const auto blocks = host::PoolUsage(kPoolTag).blocks;
    std::vector<UCHAR> data(0x1000, 9);
    host::Request request;
    request.major = IRP_MJ_WRITE;
    request.length = 0x1000;
    request.buffer = data.data();
    request.pages = host::Pages::Bad;
    host::Outcome outcome = host::Send(volume->FilterDevice, request);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, outcome.status);
    EXPECT_EQ(0u, outcome.information);
    request.pages = host::Pages::Locked;
    for (const host::Fault fault : {host::Fault::Allocate, host::Fault::MapPages}) {
        for (ULONGLONG call = 1; call <= (fault == host::Fault::Allocate ? 2u : 1u); ++call) {
            host::FailCall(host::FaultBit(fault), call);
            outcome = host::Send(volume->FilterDevice, request);
            host::DisarmFaults();
            EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, outcome.status);
        }
    }
    EXPECT_EQ(blocks, host::PoolUsage(kPoolTag).blocks);
}

TEST_F(WriteCache, RemovalDropsTheVolumesEntriesFromASharedQueue) {
    FilteredStack& other = AddMemory({.name = u"\\Device\\HarddiskVolume2"}).stack;
    PVOLUME_EXTENSION leaving = other.volume;
    UNICODE_STRING name = Counted(kName);
    ASSERT_EQ(STATUS_SUCCESS, GetSwapFile(&name, leaving));
    Queue(0, 0x1000, 1);
    std::vector<UCHAR> data(0x1000, 2);
    LARGE_INTEGER at = {};
    EXPECT_EQ(STATUS_SUCCESS, AddBufferToCache(leaving, &at, data.data(), 0x1000));
    Queue(0x8000, 0x1000, 3);
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(other.pdo.object, IRP_MN_REMOVE_DEVICE));
    EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume));
    EXPECT_EQ(std::vector<UCHAR>(0x1000, 1), ReadBack(0, 0x1000));
    EXPECT_EQ(std::vector<UCHAR>(0x1000, 3), ReadBack(0x8000, 0x1000));
}

}  // namespace
