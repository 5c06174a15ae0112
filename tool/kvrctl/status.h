// The statuses with which a driver answers, as numbers: the tool is built where their names are not declared.
#pragma once
#include <cstdint>
#include <string>

namespace ctl {

using Status = std::int32_t;

constexpr Status StatusOf(std::uint32_t value) {
    return static_cast<Status>(value);
}
constexpr bool IsSuccess(Status status) {
    return status >= 0;
}

inline constexpr Status kSuccess = 0;
inline constexpr Status kUnsuccessful = StatusOf(0xC0000001);
inline constexpr Status kInvalidHandle = StatusOf(0xC0000008);
inline constexpr Status kInvalidParameter = StatusOf(0xC000000D);
inline constexpr Status kNoSuchDevice = StatusOf(0xC000000E);
inline constexpr Status kNoSuchFile = StatusOf(0xC000000F);
inline constexpr Status kInvalidDeviceRequest = StatusOf(0xC0000010);
inline constexpr Status kEndOfFile = StatusOf(0xC0000011);
inline constexpr Status kDiskCorruptError = StatusOf(0xC0000032);
inline constexpr Status kObjectNameCollision = StatusOf(0xC0000035);
inline constexpr Status kUnrecognizedVolume = StatusOf(0xC000014F);
inline constexpr Status kIoDeviceError = StatusOf(0xC0000185);
inline constexpr Status kDevicePoweredOff = StatusOf(0xC000028F);
inline constexpr Status kAccessDenied = StatusOf(0xC0000022);
inline constexpr Status kObjectNameNotFound = StatusOf(0xC0000034);
inline constexpr Status kDeviceAlreadyAttached = StatusOf(0xC0000038);
inline constexpr Status kObjectPathNotFound = StatusOf(0xC000003A);
inline constexpr Status kSharingViolation = StatusOf(0xC0000043);
inline constexpr Status kFileLockConflict = StatusOf(0xC0000054);
inline constexpr Status kDiskFull = StatusOf(0xC000007F);
inline constexpr Status kInsufficientResources = StatusOf(0xC000009A);
inline constexpr Status kMediaWriteProtected = StatusOf(0xC00000A2);
inline constexpr Status kDeviceNotReady = StatusOf(0xC00000A3);
inline constexpr Status kNotSupported = StatusOf(0xC00000BB);
inline constexpr Status kDeviceBusy = StatusOf(0x80000011);

// "0xC00000A2 STATUS_MEDIA_WRITE_PROTECTED"; the number alone for a status without a name here.
std::string StatusText(Status status);

}  // namespace ctl
