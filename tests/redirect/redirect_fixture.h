// A fixed volume, protected, with its map loaded and free swap space behind its first 2 MiB.
#pragma once
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "platform/owners.h"
#include "redirect/swap_file.h"
#include "swap/swap.h"
#include "tests/support/driver_fixture.h"

class RedirectTest : public support::DriverTest {
protected:
    static constexpr LONGLONG kSwapStart = 0x200000;
    static constexpr char16_t kName[] = u"\\Device\\HarddiskVolume1";

    void SetUp() override {
        DriverTest::SetUp();
        device = &AddDevice();
        volume = RecordOf(*device);
        volume->ArmThreadHandle = device;  // stands for a thread that was started
    }
    void TearDown() override {
        volume->ArmThreadHandle = nullptr;
        DriverTest::TearDown();
    }

    static UNICODE_STRING Name(const char16_t* text) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, text);
        return name;
    }
    static void AddFree(PVOLUME_EXTENSION to, LONGLONG offset, ULONG length) {
        LARGE_INTEGER at;
        at.QuadPart = offset;
        EXPECT_EQ(STATUS_SUCCESS, AddSwapFreeChunk(to, &at, length));
    }
    void Protect() {
        UNICODE_STRING name = Name(kName);
        EXPECT_EQ(STATUS_SUCCESS, AddProtectedVolume(&name, PV_PROTECTED | PV_EXPLICIT));
        gTesselEnabled = TRUE;
        volume->SwapMapLoaded = TRUE;
        // More than the device holds, so that space is not low; only its lowest part is ever written.
        for (LONGLONG i = 0; i < 64; ++i) AddFree(volume, kSwapStart + i * 0x100000, 0x100000);
    }

    static ULONG64 FreeBytes(PVOLUME_EXTENSION of) {
        FastMutexLock lock(of->SwapLock);
        return of->SwapFreeBytes;
    }
    static ULONG64 UsedBytes(PVOLUME_EXTENSION of) {
        FastMutexLock lock(of->SwapLock);
        return of->SwapUsedBytes;
    }

    bool Holds(LONGLONG offset, const std::vector<UCHAR>& data) const {
        return std::memcmp(&device->data[offset], data.data(), data.size()) == 0;
    }

    support::MemoryDevice* device = nullptr;
    PVOLUME_EXTENSION volume = nullptr;
};
