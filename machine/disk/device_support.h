// What the machine's own drivers share: names, buffers and the ends of requests.
#pragma once
#include <string>
#include <string_view>
#include "machine/names.h"
#include "platform/kernel.h"

namespace machine {

inline constexpr std::u16string_view kDiskClass = u"DiskDrive";
inline constexpr std::u16string_view kDiskClassGuid = u"{4D36E967-E325-11CE-BFC1-08002BE10318}";
inline constexpr std::u16string_view kVolumeClass = u"Volume";
inline constexpr std::u16string_view kVolumeClassGuid = u"{71A27CDD-812A-11D0-BEC7-08002BE2092F}";

std::u16string Decimal(unsigned number);

// A physical device object with `extension` as the only word of its device extension, ready for requests.
// It gets the class properties; `sectorSize` in bytes.
[[nodiscard]] NTSTATUS CreatePhysicalDevice(PDRIVER_OBJECT driver, std::u16string_view name, void* extension,
                                            bool removable, std::uint32_t sectorSize, bool isDisk,
                                            PDEVICE_OBJECT& device);
template <class T>
T& ExtensionOf(PDEVICE_OBJECT device) {
    return **static_cast<T**>(device->DeviceExtension);
}

// Completes the request and returns its status.
NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);

// What the bottom of a stack answers to Plug and Play and power: it starts, stops and goes at once; minor
// functions that it does not know end as they came.
NTSTATUS CompletePnp(PIRP irp);
NTSTATUS CompletePower(PIRP irp);

// The memory behind a direct request, its pages locked for as long as this lives where nobody above has.
class DirectBuffer {
public:
    DirectBuffer(PIRP irp, LOCK_OPERATION operation);
    ~DirectBuffer();
    DirectBuffer(const DirectBuffer&) = delete;
    DirectBuffer& operator=(const DirectBuffer&) = delete;
    NTSTATUS Status() const { return status_; }  // a failure when there is no memory to use
    void* Get() const { return memory_; }

private:
    PMDL locked_ = nullptr;  // by this object
    NTSTATUS status_ = STATUS_SUCCESS;
    void* memory_ = nullptr;
};

// The answer of a buffered control request; STATUS_BUFFER_TOO_SMALL when the caller's buffer is.
NTSTATUS Answer(PIRP irp, const void* record, ULONG bytes, ULONG_PTR& information);

}  // namespace machine
