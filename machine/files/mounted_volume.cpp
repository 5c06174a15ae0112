#include "machine/files/mounted_volume.h"
#include "platform/host/check/host_memory.h"

namespace machine {

MountedVolume::~MountedVolume() {
    const host::HostGuard guard(lock_);
    Close();
}

NTSTATUS MountedVolume::Mount() {
    const NTSTATUS status = host::WithinMemory([&]() KVR_REQUIRES(lock_) { return format_->Open(); });
    if (NT_SUCCESS(status))
        closed_ = false;
    else
        Forget();
    return status;
}

void MountedVolume::Close() {
    Forget();
    closed_ = true;
}

void MountedVolume::Suspend() {
    Forget();
    suspended_ = true;
}

NTSTATUS MountedVolume::Begin() {
    if (closed_) return STATUS_DEVICE_NOT_READY;
    if (suspended_) return STATUS_DEVICE_BUSY;
    format_->Cache().Discard();
    return format_->IsOpen() ? STATUS_SUCCESS : Mount();
}

NTSTATUS MountedVolume::Look(PFILE_OBJECT file, const Body& body) {
    NTSTATUS status = Begin();
    if (!NT_SUCCESS(status)) return status;
    format_->Names().BeginOperation(file);
    status = host::WithinMemory([&]() KVR_REQUIRES(lock_) { return body(*format_); });
    // A library that threw half-way is in no state to be asked again.
    if (status == STATUS_INSUFFICIENT_RESOURCES) Forget();
    EndOperation();
    return status;
}

NTSTATUS MountedVolume::Look(const Body& body) {
    return Look(format_->Names().Directory(), body);
}

NTSTATUS MountedVolume::Change(CommitOrder order, PFILE_OBJECT file, const Body& body) {
    NTSTATUS status = Begin();
    if (!NT_SUCCESS(status)) return status;
    if (!format_->ReadOnlyReason().empty()) return STATUS_MEDIA_WRITE_PROTECTED;
    format_->Names().BeginOperation(file);
    status = host::WithinMemory([&]() KVR_REQUIRES(lock_) { return ChangeWithin(order, body); });
    if (!NT_SUCCESS(status)) Forget();
    EndOperation();
    return status;
}

NTSTATUS MountedVolume::Change(CommitOrder order, Owner owner, const Body& body) {
    MetadataNames& names = format_->Names();
    return Change(order, owner == Owner::Directory ? names.Directory() : names.FileMetadata(), body);
}

NTSTATUS MountedVolume::ChangeWithin(CommitOrder order, const Body& body) {
    NTSTATUS status = format_->BeginChange();
    if (NT_SUCCESS(status)) status = body(*format_);
    return NT_SUCCESS(status) ? format_->Commit(order) : status;
}

void MountedVolume::EndOperation() {
    format_->Names().EndOperation();
    format_->Cache().Discard();
}

void MountedVolume::Forget() {
    format_->Drop();
    format_->Cache().Discard();
}

}  // namespace machine
