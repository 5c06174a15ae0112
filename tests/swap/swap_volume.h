// A volume with its record over a disk in memory, without the dispatch routines that normally stand in front:
// its filter device hands reads to ReadSegments and writes to WriteSegments.
#pragma once
#include <gtest/gtest.h>
#include <numeric>
#include "platform/host/rtl/debug_sink.h"
#include "platform/host/check/injector.h"
#include "platform/host/kernel_host.h"
#include "platform/host/memory/pool.h"
#include "platform/host/io/request.h"
#include "platform/host/check/verifier.h"
#include "driver/globals.h"
#include "redirect/request_io.h"
#include "tests/support/map_invariants.h"
#include "tests/support/memory_device.h"

namespace support {

inline constexpr ULONG S = 512;

inline LARGE_INTEGER Large(LONGLONG value) {
    LARGE_INTEGER large;
    large.QuadPart = value;
    return large;
}

class SwapVolumeTest : public testing::Test {
protected:
    static constexpr std::size_t kBytes = 8 << 20;
    static constexpr LONGLONG kSwap = 4 << 20;  // the swap's space begins here

    SwapVolumeTest() {
        host::PowerOn();
        InitializeGlobals();
        KeInitializeMutex(&gSwapFileMutex, 0);
        blocks_ = host::PoolUsage(kPoolTag).blocks;
        disk_ = std::make_unique<MemoryDevice>(host::CreateDriver(u"\\Driver\\disk"), kBytes);
        for (std::size_t i = 0; i < kBytes; ++i) *disk_->At(i) = static_cast<std::uint8_t>(i * 7 + i / S);
        MakeFilter();
        mark_ = host::DebugMark();
    }

    ~SwapVolumeTest() override {
        host::DisarmFaults();
        EXPECT_EQ(CheckMaps(v), "");
        ResetSwapMaps(filter_);
        if (MAP_LOCATION_ENTRY* location = v->MapLocation.exchange(nullptr)) FreePool(location);
        EXPECT_EQ(host::PoolUsage(kPoolTag).blocks, blocks_) << "pool blocks leak";
        IoDetachDevice(v->Target);
        IoDeleteDevice(filter_);
        disk_.reset();
        const host::LeakReport left = host::PowerOff();
        EXPECT_EQ(left.memory.irps, 0);
        EXPECT_EQ(left.memory.mdls, 0);
        EXPECT_EQ(left.handles, 0u);
        EXPECT_EQ(host::AssertionCount(), 0u);
        host::ResetAssertionCount();
    }

    void AddFree(LONGLONG offset, ULONG length) {
        const LARGE_INTEGER at = Large(offset);
        ASSERT_EQ(AddSwapFreeChunk(v, &at, length), STATUS_SUCCESS);
    }

    // Records a redirection as a write would, with space that is not in FreeChunks.
    void Redirect(LONGLONG volumeOffset, LONGLONG swapOffset, ULONG length, ULONG bVolatile = 0) {
        PENDING_CHUNK* chunk = CreatePendingChunk();
        ASSERT_NE(chunk, nullptr);
        *chunk = {Large(volumeOffset), Large(swapOffset), length, nullptr};
        ASSERT_EQ(CommitChunks(v, chunk, bVolatile), STATUS_SUCCESS);
    }

    host::Outcome Send(UCHAR major, LONGLONG offset, void* buffer, ULONG length,
                       host::Pages pages = host::Pages::Locked) {
        host::Request request;
        request.major = major;
        request.offset = offset;
        request.buffer = buffer;
        request.length = length;
        request.pages = pages;
        return host::Send(filter_, request);
    }
    NTSTATUS Write(LONGLONG offset, const std::vector<std::uint8_t>& data) {
        return Send(IRP_MJ_WRITE, offset, const_cast<std::uint8_t*>(data.data()), data.size()).status;
    }
    std::vector<std::uint8_t> Read(LONGLONG offset, ULONG length) {
        std::vector<std::uint8_t> data(length, 0xEE);
        EXPECT_EQ(Send(IRP_MJ_READ, offset, data.data(), length).status, STATUS_SUCCESS);
        return data;
    }
    static std::vector<std::uint8_t> Data(ULONG length, int seed) {
        std::vector<std::uint8_t> data(length);
        for (ULONG i = 0; i < length; ++i) data[i] = static_cast<std::uint8_t>(seed * 31 + i / S * 3 + i);
        return data;
    }
    std::vector<std::uint8_t> OnDisk(LONGLONG offset, ULONG length) {
        return {disk_->At(offset), disk_->At(offset) + length};
    }

    ULONG64 Free() KVR_NO_ANALYSIS { return v->SwapFreeBytes; }
    ULONG64 Used() KVR_NO_ANALYSIS { return v->SwapUsedBytes; }
    bool Said(const char* part) const { return host::DebugSaid(mark_, part); }

    std::unique_ptr<MemoryDevice> disk_;
    PDEVICE_OBJECT filter_ = nullptr;
    PVOLUME_EXTENSION v = nullptr;
    SWAP_FILE swapFile_{};
    ULONGLONG mark_ = 0;

private:
    void MakeFilter() {
        PDRIVER_OBJECT driver = host::CreateDriver(u"\\Driver\\kvr");
        driver->MajorFunction[IRP_MJ_READ] = [](PDEVICE_OBJECT d, PIRP r) {
            return ReadSegments(VolumeOf(d), r);
        };
        driver->MajorFunction[IRP_MJ_WRITE] = [](PDEVICE_OBJECT d, PIRP r) {
            return WriteSegments(VolumeOf(d), r, 0);
        };
        if (!NT_SUCCESS(IoCreateDevice(driver, sizeof(VOLUME_EXTENSION), nullptr, FILE_DEVICE_DISK, 0, FALSE,
                                       &filter_)))
            std::abort();
        v = new (filter_->DeviceExtension) VOLUME_EXTENSION{};
        filter_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        IoInitializeRemoveLock(&v->RemoveLock, kPoolTag, 0, 0);
        KeInitializeMutex(&v->StorageMutex, 0);
        KeInitializeMutex(&v->MapLoadMutex, 0);
        v->FilterDevice = filter_;
        v->Target = IoAttachDeviceToDeviceStack(filter_, disk_->Object());
        RtlInitUnicodeString(&v->VolumeName, W("\\Device\\TestVolume1"));
        v->MediaType = FixedMedia;
        v->BytesPerSector = S;
        ExInitializeFastMutex(&v->SwapLock);
        InitSwapMaps(v);
        swapFile_.SwapVolume = v;
        v->SwapFile = &swapFile_;
    }

    ULONGLONG blocks_ = 0;
};

}  // namespace support
