#include "redirect/run_transfers.h"

BOOLEAN RunTransfers::MayBegin() {
    while (m_underWay == kMost || (m_underWay != 0 && IsTransferOver(&m_oldest->Transfer))) TakeOver();
    return !m_failed && NT_SUCCESS(m_status);
}

void RunTransfers::Begin(SEGMENT* segment, PDEVICE_OBJECT device, LONGLONG offset, UCHAR* data) {
    m_data = data;
    if (device)
        BeginTransfer(m_major, device, data + segment->uOffset, segment->uLength, offset, &segment->Transfer);
    else
        segment->Transfer.Sent = STATUS_NO_SUCH_DEVICE;
    m_failed = !NT_SUCCESS(segment->Transfer.Sent);
    if (m_underWay++ == 0) m_oldest = segment;
}

NTSTATUS RunTransfers::End() {
    while (m_underWay != 0) TakeOver();
    return m_status;
}

// Of a read that delivered less than was asked for, the rest is zero.
void RunTransfers::TakeOver() {
    SEGMENT* segment = m_oldest;
    const NTSTATUS status = EndTransfer(&segment->Transfer);
    m_oldest = segment->pNext;
    --m_underWay;
    if (!NT_SUCCESS(m_status)) return;
    m_status = status;
    if (!NT_SUCCESS(status)) return;
    const ULONG_PTR moved = segment->Transfer.Block.Information;
    if (m_major == IRP_MJ_READ && moved < segment->uLength)
        RtlZeroMemory(m_data + segment->uOffset + moved, segment->uLength - moved);
    m_filled = segment->uOffset + segment->uLength;
    m_moved += moved;
}
