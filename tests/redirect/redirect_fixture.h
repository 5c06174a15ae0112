// A fixed volume that can be protected, with free swap space behind its first 2 MiB.
#pragma once
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "swap/swap.h"
#include "tests/support/memory_stack.h"

class RedirectTest : public MemoryStackTest {
protected:
    static constexpr LONGLONG kSwapStart = 0x200000;

    static void AddFree(PVOLUME_EXTENSION to, LONGLONG offset, ULONG length) {
        LARGE_INTEGER at;
        at.QuadPart = offset;
        EXPECT_EQ(STATUS_SUCCESS, AddSwapFreeChunk(to, &at, length));
    }
    void Protect() {
        UNICODE_STRING name = Counted(kName);
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
};
