#include "machine/files/stack_volume_io.h"
#include "machine/disk/data_sets.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "platform/owners.h"

namespace machine {

StackVolumeIo::StackVolumeIo(VolumeDevice& volume) : volume_(volume), top_(host::TopOfStack(volume.Device())) {}

NTSTATUS StackVolumeIo::Transfer(UCHAR major, std::uint64_t offset, void* buffer, std::uint32_t length,
                                 PFILE_OBJECT file) {
    if (!open_.load(std::memory_order_acquire)) return STATUS_DEVICE_POWERED_OFF;
    host::Request request;
    request.major = major;
    request.offset = static_cast<LONGLONG>(offset);
    request.length = length;
    request.buffer = buffer;
    request.originalFile = file;
    request.stackFile = file;
    return host::Send(top_, request).status;
}

NTSTATUS StackVolumeIo::Read(std::uint64_t offset, void* buffer, std::uint32_t length, PFILE_OBJECT file) {
    return Transfer(IRP_MJ_READ, offset, buffer, length, file);
}

NTSTATUS StackVolumeIo::Write(std::uint64_t offset, const void* buffer, std::uint32_t length,
                              PFILE_OBJECT file) {
    // A write request only reads its buffer; the record that carries it serves both directions.
    return Transfer(IRP_MJ_WRITE, offset, const_cast<void*>(buffer), length, file);
}

NTSTATUS StackVolumeIo::Flush() {
    if (!open_.load(std::memory_order_acquire)) return STATUS_DEVICE_POWERED_OFF;
    host::Request request;
    request.major = IRP_MJ_FLUSH_BUFFERS;
    request.pages = host::Pages::None;
    return host::Send(top_, request).status;
}

void StackVolumeIo::Trim(std::uint64_t offset, std::uint64_t length) {
    if (!open_.load(std::memory_order_acquire)) return;
    struct {
        DataSetHeader header;
        alignas(DataSetRange) DataSetRange range;
    } request{};
    request.header = {sizeof(DataSetHeader), kTrimAction, 0, 0, 0, offsetof(decltype(request), range),
                      sizeof(DataSetRange)};
    request.range = {static_cast<LONGLONG>(offset), length};
    KVR_DISCARD(host::SendControl(top_, {.code = IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES,
                                         .input = &request,
                                         .inputLength = sizeof request}),
                "a disk that does not forget is as good");
}

}  // namespace machine
