// The request by which a file system tells a disk what it does not need any more: the platform's record, a
// header and behind it the ranges.
#pragma once
#include <span>
#include "platform/kernel.h"

namespace machine {

struct DataSetHeader {
    ULONG size, action, flags;
    ULONG parametersAt, parametersLength;  // bytes
    ULONG rangesAt, rangesLength;          // bytes, from the header's beginning
};
struct DataSetRange {
    LONGLONG offset;  // bytes
    ULONGLONG length;
};
static_assert(sizeof(DataSetHeader) == 28 && sizeof(DataSetRange) == 16);
inline constexpr ULONG kTrimAction = 1;

// What is to be forgotten, in the request's own buffer; empty for another action and for a malformed request.
inline std::span<DataSetRange> TrimRanges(PIRP irp) {
    const ULONG length = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.InputBufferLength;
    auto* bytes = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
    const auto* header = reinterpret_cast<const DataSetHeader*>(bytes);
    if (bytes == nullptr || length < sizeof(DataSetHeader) || header->action != kTrimAction) return {};
    if (header->rangesAt % alignof(DataSetRange) != 0 || header->rangesAt > length ||
        header->rangesLength > length - header->rangesAt)
        return {};
    return {reinterpret_cast<DataSetRange*>(bytes + header->rangesAt),
            header->rangesLength / sizeof(DataSetRange)};
}

}  // namespace machine
