// The statuses with which a driver answers, in words. Their names are those of platform/host/nt/ntstatus.h;
// this header needs none, for programs that have the platform's own.
#pragma once
#include <cstdint>
#include <string>

namespace ctl {

using Status = std::int32_t;  // NTSTATUS

constexpr bool IsSuccess(Status status) {
    return status >= 0;
}

// "0xC00000A2"
std::string Hex(Status status);
// "0xC00000A2 STATUS_MEDIA_WRITE_PROTECTED"; the number alone for a status without a name here.
std::string StatusText(Status status);

}  // namespace ctl
