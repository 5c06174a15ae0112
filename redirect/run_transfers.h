// The lower transfers of one request, one for each run and several of them under way at once, so that a device
// which takes its time works on all of them. Begun in the order of the list, and taken over in that order: the
// first failure there is the request's, and what came after it counts for nothing. Above a device that
// completes at once each transfer is over before the next begins. IRQL: below DISPATCH_LEVEL, without locks.
#pragma once
#include "redirect/segments.h"
#include "swap/swap_file.h"

class RunTransfers {
public:
    RunTransfers(ULONG major, PVOLUME_EXTENSION volume) : m_major(major), m_volume(volume) {}

    // Takes over what is over, and waits for that while kMost are under way. FALSE when a transfer is known to
    // have failed: no other is to begin.
    [[nodiscard]] BOOLEAN MayBegin();
    // One run's transfer at byte `offset` of `device`, which may be null and then fails, after MayBegin has
    // answered TRUE. `data`, a kernel address: where the request's first byte lies. The segments are a list's,
    // each the successor of the one before, and stay as they are until End.
    void Begin(SEGMENT* segment, PDEVICE_OBJECT device, LONGLONG offset, UCHAR* data);
    // Waits for all. The status below 0 of the first that failed, or of the last; STATUS_SUCCESS for none.
    // Nothing is under way afterwards; safe at any time.
    NTSTATUS End();

    // Bytes at the front of the request whose runs have succeeded one and all, and what their devices moved.
    ULONG Filled() const { return m_filled; }
    ULONG_PTR Moved() const { return m_moved; }
    // Where redirected runs lie; null when there is no such device.
    PDEVICE_OBJECT SwapTarget() { return m_swap.Of(m_volume); }
    // Once nothing is under way.
    void Release() { m_swap.Release(); }

private:
    static constexpr ULONG kMost = 32;

    void TakeOver();

    const ULONG m_major;
    const PVOLUME_EXTENSION m_volume;
    SwapDevice m_swap;
    UCHAR* m_data = nullptr;
    SEGMENT* m_oldest = nullptr;  // of those under way
    ULONG m_underWay = 0;
    BOOLEAN m_failed = FALSE;  // one that is not taken over yet
    NTSTATUS m_status = STATUS_SUCCESS;
    ULONG m_filled = 0;
    ULONG_PTR m_moved = 0;
};
