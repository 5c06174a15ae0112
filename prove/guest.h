// What the acts need of the system that they are played in. Freestanding: the acts run as a native program that
// Windows starts before anybody logs in, and in a hosted machine. Every call returns the system's own NTSTATUS.
#pragma once
#include <cstddef>
#include <cstdint>

namespace proof {

using Status = std::int32_t;

[[nodiscard]] constexpr bool Succeeded(Status status) {
    return status >= 0;
}

inline constexpr Status kSuccess = 0;
inline constexpr Status kAlreadyAttached = static_cast<Status>(0xC0000038);
inline constexpr Status kWriteProtected = static_cast<Status>(0xC00000A2);
inline constexpr Status kNotSupported = static_cast<Status>(0xC00000BB);
inline constexpr Status kSharingViolation = static_cast<Status>(0xC0000043);

enum class Device {
    Control,  // \Device\kvr
    Link,     // the same by its name for programs
};

class Guest {
public:
    // ---- the control device: one handle at a time ------------------------------------------------------
    virtual Status Open(Device device) = 0;
    // While that is held: what another open gives. A handle that comes of it is closed.
    virtual Status OpenSecond() = 0;
    virtual void Close() = 0;
    // `returned`: the bytes of `output` that were filled.
    virtual Status Ask(std::uint32_t code, const void* input, std::uint32_t inputLength, void* output,
                       std::uint32_t outputLength, std::uint32_t* returned) = 0;

    // ---- the volume that is to be protected ------------------------------------------------------------
    // \Device\HarddiskVolume3, 0-terminated, at most 63 units.
    virtual const char16_t* VolumeName() = 0;
    // Files in its root: \name. A write makes the file where it is missing, and is not flushed; a read comes
    // from the volume and not out of the system's cache, where the system can tell them apart.
    virtual Status Write(const char16_t* path, std::uint64_t offset, const void* bytes,
                         std::uint32_t length) = 0;
    virtual Status Flush(const char16_t* path) = 0;
    virtual Status Read(const char16_t* path, std::uint64_t offset, void* bytes, std::uint32_t length) = 0;
    virtual Status OpenToRead(const char16_t* path) = 0;
    virtual Status Delete(const char16_t* path) = 0;
    // Its first sector, through a handle to the volume: read, and the same bytes written.
    virtual Status RewriteFirstSector() = 0;
    // The request by which a file system tells the disk to forget sectors, for none of them.
    virtual Status Trim() = 0;

    // ---- the rest --------------------------------------------------------------------------------------
    virtual void Wait(std::uint32_t milliseconds) = 0;
    // The shutdown that comes next is to find this file being written.
    virtual void WriteDuringShutdown(const char16_t* path) = 0;
    // `name`: ASCII.
    virtual void Report(const char* name, bool passed, Status status, std::uint64_t measured) = 0;

protected:
    ~Guest() = default;
};

}  // namespace proof
