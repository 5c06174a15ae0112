#include "tests/second_kernel/common/played_files.h"
#include <algorithm>
#include "machine/names.h"
#include "platform/host/object/namespace.h"
#include "tests/second_kernel/common/requests.h"

class PlayedOpen final : public host::OpenFile {
public:
    PlayedOpen(PlayedFiles& files, std::shared_ptr<PlayedFile> file, const host::FileOpen& request)
        : m_files(files),
          m_file(std::move(file)),
          m_path(request.path),
          m_claim(machine::MakeShareClaim(request.access, request.share)) {
        m_file->Share.Admit(m_claim);
        InitializeFile(&m_object, m_files.m_volume, m_path.c_str());
    }
    ~PlayedOpen() override {
        const std::lock_guard hold(m_files.m_lock);
        m_file->Share.Leave(m_claim);
    }

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        if (!AreSectors(offset, length)) return STATUS_INVALID_PARAMETER;
        const LONGLONG size = Size();
        if (offset >= size) return STATUS_END_OF_FILE;
        const auto part = static_cast<ULONG>(std::min<LONGLONG>(size - offset, length));
        const NTSTATUS status = Move(IRP_MJ_READ, offset, static_cast<PUCHAR>(buffer), part);
        if (NT_SUCCESS(status)) done = part;
        return status;
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        m_files.WaitAtGate();
        if (!AreSectors(offset, length)) return STATUS_INVALID_PARAMETER;
        NTSTATUS status = Reserve(offset + length);
        if (!NT_SUCCESS(status)) return status;
        // A compressed file of zeros takes no sector at all.
        if (m_file->Marks == 0)
            status = Move(IRP_MJ_WRITE, offset, static_cast<PUCHAR>(const_cast<void*>(buffer)), length);
        if (!NT_SUCCESS(status)) return status;
        const std::lock_guard hold(m_files.m_lock);
        m_file->Size = std::max(m_file->Size, offset + length);
        done = length;
        return status;
    }

    ULONG Attributes() override { return FILE_ATTRIBUTE_NORMAL | m_file->Marks; }
    NTSTATUS Decompress() override {
        m_file->Marks &= ~FILE_ATTRIBUTE_COMPRESSED;
        return STATUS_SUCCESS;
    }

private:
    // Whole sectors only, as unbuffered opens promise.
    bool AreSectors(LONGLONG offset, ULONG length) const {
        const ULONG sector = m_files.m_volume->SectorSize;
        return offset >= 0 && offset % sector == 0 && length % sector == 0;
    }
    LONGLONG Size() {
        const std::lock_guard hold(m_files.m_lock);
        return m_file->Size;
    }
    NTSTATUS Reserve(LONGLONG size) {
        const std::lock_guard hold(m_files.m_lock);
        return m_files.Reserve(*m_file, size);
    }
    // The stretch at `offset` that lies in one piece, as much of it as `length`; empty behind the end.
    FileExtent NextStretch(LONGLONG offset, LONGLONG length) {
        const std::lock_guard hold(m_files.m_lock);
        for (const FileExtent& extent : m_file->Extents) {
            if (offset < extent.Length)
                return {extent.Offset + offset, std::min(extent.Length - offset, length)};
            offset -= extent.Length;
        }
        return {};
    }
    NTSTATUS Move(UCHAR major, LONGLONG offset, PUCHAR buffer, ULONG length) {
        for (ULONG done = 0; done < length;) {
            const FileExtent part = NextStretch(offset + done, length - done);
            if (part.Length == 0) return STATUS_END_OF_FILE;
            const auto bytes = static_cast<ULONG>(part.Length);
            const host::Outcome outcome = SendTransfer(host::TopOfStack(m_files.m_volume),
                                                       {major, part.Offset, buffer + done, bytes, &m_object});
            if (!NT_SUCCESS(outcome.status)) return outcome.status;
            done += bytes;
        }
        return STATUS_SUCCESS;
    }

    PlayedFiles& m_files;
    std::shared_ptr<PlayedFile> m_file;
    std::u16string m_path;
    machine::ShareClaim m_claim;
    FILE_OBJECT m_object;
};

void PlayedFiles::Mount(PDEVICE_OBJECT volume, LONGLONG begin, LONGLONG end) {
    KeInitializeEvent(&Arrived, NotificationEvent, FALSE);
    KeInitializeEvent(&m_pass, SynchronizationEvent, FALSE);
    m_volume = volume;
    m_begin = begin;
    m_used.resize(static_cast<SIZE_T>((end - begin) / kFileUnit));
    host::MountProvider(volume, this);
}

NTSTATUS PlayedFiles::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                           ULONG_PTR& information) {
    const std::lock_guard hold(m_lock);
    const bool overwrites = request.disposition == FILE_OVERWRITE || request.disposition == FILE_OVERWRITE_IF;
    auto found = m_files.find(machine::FoldName(request.path));
    if (found == m_files.end()) {
        if (request.disposition == FILE_OPEN || request.disposition == FILE_OVERWRITE)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        found = m_files.emplace(machine::FoldName(request.path), std::make_shared<PlayedFile>()).first;
        found->second->Marks = FolderMarks;
        information = FILE_CREATED;
    } else {
        if (!found->second->Share.Allows(machine::MakeShareClaim(request.access, request.share)))
            return STATUS_SHARING_VIOLATION;
        if (request.disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
        if (overwrites) GiveSpaceBack(*found->second);
        information = overwrites ? FILE_OVERWRITTEN : FILE_OPENED;
    }
    file = std::make_unique<PlayedOpen>(*this, found->second, request);
    return STATUS_SUCCESS;
}

NTSTATUS PlayedFiles::Delete(const std::u16string& path) {
    const std::lock_guard hold(m_lock);
    const auto found = m_files.find(machine::FoldName(path));
    if (found == m_files.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const ULONG all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    if (!found->second->Share.Allows(machine::MakeShareClaim(DELETE, all))) return STATUS_SHARING_VIOLATION;
    GiveSpaceBack(*found->second);
    m_files.erase(found);
    return STATUS_SUCCESS;
}

NTSTATUS PlayedFiles::Reserve(PlayedFile& file, LONGLONG size) {
    if (FileLimit != 0 && size > FileLimit) return STATUS_DISK_FULL;
    LONGLONG missing = size;
    for (const FileExtent& extent : file.Extents) missing -= extent.Length;
    while (missing > 0) {
        if (!TakeUnits(file, static_cast<ULONG>((missing + kFileUnit - 1) / kFileUnit)))
            return STATUS_DISK_FULL;
        missing -= file.Extents.back().Length;
    }
    return STATUS_SUCCESS;
}

// The lowest free units, at most a piece; behind a piece the gap stays free for ever.
bool PlayedFiles::TakeUnits(PlayedFile& file, ULONG wanted) {
    const auto first = std::find(m_used.begin(), m_used.end(), false);
    const auto room = std::find(first, m_used.end(), true) - first;
    if (room == 0) return false;
    const auto most = PieceUnits != 0 ? std::min(PieceUnits, wanted) : wanted;
    const auto count = std::min<std::ptrdiff_t>(most, room);
    std::fill_n(first, std::min<std::ptrdiff_t>(count + GapUnits, m_used.end() - first), true);
    const LONGLONG place = m_begin + (first - m_used.begin()) * LONGLONG{kFileUnit};
    file.Extents.push_back({place, count * LONGLONG{kFileUnit}});
    return true;
}

void PlayedFiles::GiveSpaceBack(PlayedFile& file) {
    for (const FileExtent& extent : file.Extents)
        std::fill_n(m_used.begin() + (extent.Offset - m_begin) / kFileUnit, extent.Length / kFileUnit, false);
    file.Extents.clear();
    file.Size = 0;
}

void PlayedFiles::Gate() {
    KeClearEvent(&Arrived);
    m_isGated = true;
}

void PlayedFiles::OpenGate() {
    m_isGated = false;
    LetOneThrough();
}

void PlayedFiles::WaitAtGate() {
    if (!m_isGated) return;
    KeSetEvent(&Arrived, 0, FALSE);
    (void)KeWaitForSingleObject(&m_pass, Executive, KernelMode, FALSE, nullptr);
}

const PlayedFile* PlayedFiles::Find(const std::u16string& path) const {
    const auto found = m_files.find(machine::FoldName(path));
    return found == m_files.end() ? nullptr : found->second.get();
}
