#include "nbd/errors.h"
#include <cerrno>
#include <cstdio>

namespace nbd {

int ErrnoOf(NTSTATUS status) {
    switch (status) {
        case STATUS_DISK_FULL:
            return ENOSPC;
        case STATUS_ACCESS_DENIED:
        case STATUS_MEDIA_WRITE_PROTECTED:
            return EPERM;
        case STATUS_INSUFFICIENT_RESOURCES:
            return ENOMEM;
        case STATUS_INVALID_PARAMETER:
            return EINVAL;
        case STATUS_NOT_SUPPORTED:
        case STATUS_INVALID_DEVICE_REQUEST:
            return ENOTSUP;
        case STATUS_DEVICE_POWERED_OFF:
            return ESHUTDOWN;
        default:
            return EIO;
    }
}

std::string Hex(NTSTATUS status) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(status));
    return text;
}

}  // namespace nbd
