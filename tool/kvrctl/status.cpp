#include "tool/kvrctl/status.h"
#include <cstdio>

namespace ctl {
namespace {

constexpr struct {
    Status status;
    const char* name;
} kNames[] = {
    {kSuccess, "STATUS_SUCCESS"},
    {kUnsuccessful, "STATUS_UNSUCCESSFUL"},
    {kInvalidHandle, "STATUS_INVALID_HANDLE"},
    {kInvalidParameter, "STATUS_INVALID_PARAMETER"},
    {kNoSuchDevice, "STATUS_NO_SUCH_DEVICE"},
    {kNoSuchFile, "STATUS_NO_SUCH_FILE"},
    {kInvalidDeviceRequest, "STATUS_INVALID_DEVICE_REQUEST"},
    {kEndOfFile, "STATUS_END_OF_FILE"},
    {kAccessDenied, "STATUS_ACCESS_DENIED"},
    {kObjectNameNotFound, "STATUS_OBJECT_NAME_NOT_FOUND"},
    {kDeviceAlreadyAttached, "STATUS_DEVICE_ALREADY_ATTACHED"},
    {kObjectPathNotFound, "STATUS_OBJECT_PATH_NOT_FOUND"},
    {kSharingViolation, "STATUS_SHARING_VIOLATION"},
    {kFileLockConflict, "STATUS_FILE_LOCK_CONFLICT"},
    {kDiskFull, "STATUS_DISK_FULL"},
    {kInsufficientResources, "STATUS_INSUFFICIENT_RESOURCES"},
    {kMediaWriteProtected, "STATUS_MEDIA_WRITE_PROTECTED"},
    {kDeviceNotReady, "STATUS_DEVICE_NOT_READY"},
    {kNotSupported, "STATUS_NOT_SUPPORTED"},
    {kDiskCorruptError, "STATUS_DISK_CORRUPT_ERROR"},
    {kObjectNameCollision, "STATUS_OBJECT_NAME_COLLISION"},
    {kUnrecognizedVolume, "STATUS_UNRECOGNIZED_VOLUME"},
    {kIoDeviceError, "STATUS_IO_DEVICE_ERROR"},
    {kDevicePoweredOff, "STATUS_DEVICE_POWERED_OFF"},
    {kDeviceBusy, "STATUS_DEVICE_BUSY"},
};

}  // namespace

std::string StatusText(Status status) {
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X", static_cast<unsigned>(status));
    for (const auto& known : kNames) {
        if (known.status == status) return std::string(number) + " " + known.name;
    }
    return number;
}

}  // namespace ctl
