#include "nbd/served_disk.h"
#include <algorithm>
#include <utility>
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"

namespace nbd {
namespace {

// The most that one request carries. The driver copies what it redirects, so this bounds a request's memory.
constexpr std::uint64_t kMostTransfer = 1024 * 1024;
constexpr std::uint64_t kZeroBytes = 1024 * 1024;

}  // namespace

ServedDisk::ServedDisk(std::shared_ptr<machine::HostDisk> medium, unsigned number)
    : medium_(std::move(medium)), number_(number), bytes_(medium_->SectorSize()) {}

void ServedDisk::BeginBoot(machine::Machine& machine) {
    std::vector<VolumePlace> places;
    for (const machine::Volume* volume : machine.Volumes()) {
        if (volume->device->DiskNumber() == number_)
            places.push_back({volume->device->Number(), volume->device->Offset(), volume->device->Length()});
    }
    map_ = DiskMap(std::move(places));
    top_ = host::TopOfStack(machine.DiskOf(number_)->Device());
    machine_ = &machine;
}

NTSTATUS ServedDisk::SendToDisk(UCHAR major, std::uint64_t offset, void* buffer, std::uint64_t length) {
    host::Request request;
    request.major = major;
    if (major == IRP_MJ_FLUSH_BUFFERS) request.pages = host::Pages::None;
    request.offset = static_cast<LONGLONG>(offset);
    request.length = static_cast<ULONG>(length);
    request.buffer = buffer;
    return host::Send(top_, request).status;
}

NTSTATUS ServedDisk::SendPiece(UCHAR major, const Piece& piece, std::uint8_t* buffer) {
    if (piece.volume == nullptr) return SendToDisk(major, piece.offset, buffer, piece.length);
    machine::StackVolumeIo& volume = *machine_->VolumeOf(piece.volume->number)->io;
    const std::uint64_t offset = piece.offset - piece.volume->offset;
    const auto length = static_cast<std::uint32_t>(piece.length);
    return major == IRP_MJ_READ ? volume.Read(offset, buffer, length, nullptr)
                                : volume.Write(offset, buffer, length, nullptr);
}

NTSTATUS ServedDisk::Transfer(UCHAR major, std::uint64_t offset, std::uint8_t* buffer, std::uint64_t length) {
    while (length != 0) {
        const Piece piece = map_.First(offset, length, kMostTransfer);
        const NTSTATUS status = SendPiece(major, piece, buffer);
        if (!NT_SUCCESS(status)) return status;
        offset += piece.length, buffer += piece.length, length -= piece.length;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ServedDisk::Read(std::uint64_t offset, void* buffer, std::uint64_t length) {
    return Transfer(IRP_MJ_READ, offset, static_cast<std::uint8_t*>(buffer), length);
}

NTSTATUS ServedDisk::Write(std::uint64_t offset, const void* buffer, std::uint64_t length) {
    // A write request only reads its buffer; the record that carries it serves both directions.
    return Transfer(IRP_MJ_WRITE, offset, static_cast<std::uint8_t*>(const_cast<void*>(buffer)), length);
}

NTSTATUS ServedDisk::ReadBytes(std::uint64_t offset, void* buffer, std::uint64_t length) {
    return machine_ == nullptr ? STATUS_DEVICE_POWERED_OFF : bytes_.Read(*this, offset, buffer, length);
}

NTSTATUS ServedDisk::WriteBytes(std::uint64_t offset, const void* buffer, std::uint64_t length) {
    if (machine_ == nullptr) return STATUS_DEVICE_POWERED_OFF;
    return readOnly_ ? STATUS_MEDIA_WRITE_PROTECTED : bytes_.Write(*this, offset, buffer, length);
}

NTSTATUS ServedDisk::ZeroBytes(std::uint64_t offset, std::uint64_t length) {
    static const std::vector<std::uint8_t> zeros(kZeroBytes);
    while (length != 0) {
        const std::uint64_t part = std::min(length, kZeroBytes - offset % kZeroBytes);
        const NTSTATUS status = WriteBytes(offset, zeros.data(), part);
        if (!NT_SUCCESS(status)) return status;
        offset += part, length -= part;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ServedDisk::Flush() {
    if (machine_ == nullptr) return STATUS_DEVICE_POWERED_OFF;
    NTSTATUS result = STATUS_SUCCESS;
    machine_->ForEachVolume([&](const machine::Volume& volume) {
        if (volume.device->DiskNumber() != number_) return;
        const NTSTATUS status = volume.io->Flush();
        if (NT_SUCCESS(result)) result = status;
    });
    const NTSTATUS status = SendToDisk(IRP_MJ_FLUSH_BUFFERS, 0, nullptr, 0);
    return NT_SUCCESS(result) ? status : result;
}

}  // namespace nbd
