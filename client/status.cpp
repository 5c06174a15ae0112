#include "client/status.h"
#include <cstdio>
#include "platform/host/nt/ntstatus.h"

namespace ctl {
namespace {

#define NAMED(status) \
    { status, #status }
constexpr struct {
    Status status;
    const char* name;
} kNames[] = {
    NAMED(STATUS_SUCCESS),
    NAMED(STATUS_UNSUCCESSFUL),
    NAMED(STATUS_INVALID_HANDLE),
    NAMED(STATUS_INVALID_PARAMETER),
    NAMED(STATUS_NO_SUCH_DEVICE),
    NAMED(STATUS_NO_SUCH_FILE),
    NAMED(STATUS_INVALID_DEVICE_REQUEST),
    NAMED(STATUS_END_OF_FILE),
    NAMED(STATUS_ACCESS_DENIED),
    NAMED(STATUS_OBJECT_NAME_NOT_FOUND),
    NAMED(STATUS_DEVICE_ALREADY_ATTACHED),
    NAMED(STATUS_OBJECT_PATH_NOT_FOUND),
    NAMED(STATUS_SHARING_VIOLATION),
    NAMED(STATUS_FILE_LOCK_CONFLICT),
    NAMED(STATUS_DISK_FULL),
    NAMED(STATUS_INSUFFICIENT_RESOURCES),
    NAMED(STATUS_MEDIA_WRITE_PROTECTED),
    NAMED(STATUS_DEVICE_NOT_READY),
    NAMED(STATUS_NOT_SUPPORTED),
    NAMED(STATUS_DISK_CORRUPT_ERROR),
    NAMED(STATUS_OBJECT_NAME_COLLISION),
    NAMED(STATUS_UNRECOGNIZED_VOLUME),
    NAMED(STATUS_IO_DEVICE_ERROR),
    NAMED(STATUS_DEVICE_POWERED_OFF),
    NAMED(STATUS_DEVICE_BUSY),
};
#undef NAMED

}  // namespace

std::string Hex(Status status) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(status));
    return text;
}

std::string StatusText(Status status) {
    for (const auto& known : kNames) {
        if (known.status == status) return Hex(status) + " " + known.name;
    }
    return Hex(status);
}

}  // namespace ctl
