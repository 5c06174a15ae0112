#include "tests/second_kernel/host/kernel_files.h"
#include <algorithm>
#include <cstring>
#include "machine/names.h"

class KernelOpen final : public host::OpenFile {
public:
    KernelOpen(KernelFiles& files, std::shared_ptr<KernelFiles::File> file, const machine::ShareClaim& claim)
        : files_(files), file_(std::move(file)), claim_(claim) {}
    ~KernelOpen() override {
        const std::lock_guard hold(files_.lock_);
        file_->share.Leave(claim_);
    }

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        const std::lock_guard hold(files_.lock_);
        const auto at = static_cast<std::size_t>(offset);
        done = 0;
        if (at >= file_->bytes.size()) return STATUS_END_OF_FILE;
        done = static_cast<ULONG>(std::min<std::size_t>(length, file_->bytes.size() - at));
        std::memcpy(buffer, file_->bytes.data() + at, done);
        return STATUS_SUCCESS;
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        const std::lock_guard hold(files_.lock_);
        const auto at = static_cast<std::size_t>(offset);
        if (file_->bytes.size() < at + length) file_->bytes.resize(at + length);
        std::memcpy(file_->bytes.data() + at, buffer, length);
        done = length;
        return STATUS_SUCCESS;
    }

private:
    KernelFiles& files_;
    std::shared_ptr<KernelFiles::File> file_;
    machine::ShareClaim claim_;
};

NTSTATUS KernelFiles::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                           ULONG_PTR& information) {
    const std::lock_guard hold(lock_);
    const std::u16string name = machine::FoldName(request.path);
    const machine::ShareClaim claim = machine::MakeShareClaim(request.access, request.share);
    auto found = files_.find(name);
    information = FILE_OPENED;
    if (found == files_.end()) {
        if (request.disposition == FILE_OPEN || request.disposition == FILE_OVERWRITE)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        found = files_.emplace(name, std::make_shared<File>()).first;
        information = FILE_CREATED;
    } else {
        if (request.disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
        if (!found->second->share.Allows(claim)) return STATUS_SHARING_VIOLATION;
        if (request.disposition == FILE_OVERWRITE || request.disposition == FILE_OVERWRITE_IF) {
            found->second->bytes.clear();
            information = FILE_OVERWRITTEN;
        }
    }
    found->second->share.Admit(claim);
    file = std::make_unique<KernelOpen>(*this, found->second, claim);
    return STATUS_SUCCESS;
}

NTSTATUS KernelFiles::Delete(const std::u16string& path) {
    const std::lock_guard hold(lock_);
    const auto found = files_.find(machine::FoldName(path));
    if (found == files_.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const ULONG all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    if (!found->second->share.Allows(machine::MakeShareClaim(DELETE, all))) return STATUS_SHARING_VIOLATION;
    files_.erase(found);
    return STATUS_SUCCESS;
}

void KernelFiles::Clear() {
    const std::lock_guard hold(lock_);
    files_.clear();
}
