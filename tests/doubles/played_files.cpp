#include "tests/doubles/played_files.h"
#include <algorithm>
#include <utility>
#include "machine/names.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "platform/host/object/namespace.h"

class PlayedOpen final : public host::OpenFile {
public:
    PlayedOpen(PlayedFiles& files, std::shared_ptr<PlayedFile> file, const host::FileOpen& request)
        : m_files(files),
          m_file(std::move(file)),
          m_path(request.path),
          m_claim(machine::MakeShareClaim(request.access, request.share)) {
        m_file->Share.Admit(m_claim);
        m_object.DeviceObject = m_files.m_volume;
        RtlInitUnicodeString(&m_object.FileName, m_path.c_str());
    }
    ~PlayedOpen() override {
        const std::lock_guard hold(m_files.m_lock);
        m_file->Share.Leave(m_claim);
    }

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        NTSTATUS status = Check(offset, length);
        if (!NT_SUCCESS(status)) return status;
        const LONGLONG size = Size();
        if (offset >= size) return STATUS_END_OF_FILE;
        const auto part = static_cast<ULONG>(std::min<LONGLONG>(size - offset, length));
        status = Move(IRP_MJ_READ, offset, static_cast<PUCHAR>(buffer), part);
        if (NT_SUCCESS(status)) done = part;
        return status;
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        m_files.WaitAtGate();
        NTSTATUS status = Check(offset, length);
        if (NT_SUCCESS(status)) status = Reserve(offset + length);
        if (!NT_SUCCESS(status)) return status;
        // A compressed file of zeros takes no sector at all.
        if (m_file->Marks == 0)
            status = Move(IRP_MJ_WRITE, offset, static_cast<PUCHAR>(const_cast<void*>(buffer)), length);
        if (!NT_SUCCESS(status)) return status;
        m_files.Grew(*m_file, offset + length);
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
    NTSTATUS Check(LONGLONG offset, ULONG length) const {
        if (m_files.m_hasEnded) return STATUS_DEVICE_NOT_READY;
        const ULONG sector = m_files.m_volume->SectorSize;
        return offset >= 0 && offset % sector == 0 && length % sector == 0 ? STATUS_SUCCESS
                                                                           : STATUS_INVALID_PARAMETER;
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
            const NTSTATUS status = m_files.m_carry(major, part, buffer + done, &m_object);
            if (!NT_SUCCESS(status)) return status;
            done += static_cast<ULONG>(part.Length);
        }
        return STATUS_SUCCESS;
    }

    PlayedFiles& m_files;
    std::shared_ptr<PlayedFile> m_file;
    std::u16string m_path;
    machine::ShareClaim m_claim;
    FILE_OBJECT m_object{};
};

void PlayedFiles::Attach(PDEVICE_OBJECT volume, LONGLONG begin, LONGLONG end, Carry carry) {
    KeInitializeEvent(&Arrived, NotificationEvent, FALSE);
    KeInitializeEvent(&m_pass, SynchronizationEvent, FALSE);
    m_volume = volume;
    m_begin = begin;
    m_carry = std::move(carry);
    m_now.used.resize(static_cast<SIZE_T>((end - begin) / kFileUnit));
    for (auto& [path, file] : m_now.files) file->Share = {};
    m_hasEnded = false;
}

void PlayedFiles::Mount(PDEVICE_OBJECT volume, LONGLONG begin, LONGLONG end) {
    Attach(volume, begin, end, [=](UCHAR major, const FileExtent& place, PUCHAR buffer, PFILE_OBJECT file) {
        return host::Send(host::TopOfStack(volume), {.major = major,
                                                     .flags = IRP_NOCACHE,
                                                     .length = static_cast<ULONG>(place.Length),
                                                     .offset = place.Offset,
                                                     .buffer = buffer,
                                                     .originalFile = file,
                                                     .stackFile = file})
            .status;
    });
    host::MountProvider(volume, this);
}

NTSTATUS PlayedFiles::Standing() const {
    if (m_hasEnded) return STATUS_DEVICE_NOT_READY;
    return m_isCut && m_isCut() ? STATUS_DEVICE_POWERED_OFF : STATUS_SUCCESS;
}

NTSTATUS PlayedFiles::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                           ULONG_PTR& information) {
    const std::lock_guard hold(m_lock);
    if (const NTSTATUS status = Standing(); !NT_SUCCESS(status)) return status;
    const bool overwrites = request.disposition == FILE_OVERWRITE || request.disposition == FILE_OVERWRITE_IF;
    auto found = m_now.files.find(machine::FoldName(request.path));
    if (found == m_now.files.end()) {
        if (request.disposition == FILE_OPEN || request.disposition == FILE_OVERWRITE)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        found = m_now.files.emplace(machine::FoldName(request.path), std::make_shared<PlayedFile>()).first;
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
    if (const NTSTATUS status = Standing(); !NT_SUCCESS(status)) return status;
    const auto found = m_now.files.find(machine::FoldName(path));
    if (found == m_now.files.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const ULONG all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    if (!found->second->Share.Allows(machine::MakeShareClaim(DELETE, all))) return STATUS_SHARING_VIOLATION;
    GiveSpaceBack(*found->second);
    m_now.files.erase(found);
    return STATUS_SUCCESS;
}

NTSTATUS PlayedFiles::Reserve(PlayedFile& file, LONGLONG size) {
    if (const NTSTATUS status = Standing(); !NT_SUCCESS(status)) return status;
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
    std::vector<bool>& used = m_now.used;
    const auto first = std::find(used.begin() + m_from, used.end(), false);
    m_from = first - used.begin();
    const std::ptrdiff_t most = PieceBytes != 0 ? std::min(PieceBytes / kFileUnit, wanted) : wanted;
    const auto count = std::find(first, first + std::min(most, used.end() - first), true) - first;
    if (count == 0) return false;
    std::fill_n(first, std::min<std::ptrdiff_t>(count + GapBytes / kFileUnit, used.end() - first), true);
    file.Extents.push_back({m_begin + m_from * LONGLONG{kFileUnit}, count * LONGLONG{kFileUnit}});
    return true;
}

void PlayedFiles::GiveSpaceBack(PlayedFile& file) {
    for (const FileExtent& extent : file.Extents)
        std::fill_n(m_now.used.begin() + (extent.Offset - m_begin) / kFileUnit, extent.Length / kFileUnit,
                    false);
    file.Extents.clear();
    file.Size = 0;
    m_from = 0;
}

void PlayedFiles::Grew(PlayedFile& file, LONGLONG size) {
    const std::lock_guard hold(m_lock);
    if (!NT_SUCCESS(Standing())) return;
    file.Size = std::max(file.Size, size);
    if (m_isCut) m_journaled = Save();
}

std::shared_ptr<const PlayedFiles::Directory> PlayedFiles::Save() const {
    auto copy = std::make_shared<Directory>(m_now);
    for (auto& [path, file] : copy->files) file = std::make_shared<PlayedFile>(*file);
    return copy;
}

void PlayedFiles::Restore(const Directory& saved) {
    const std::lock_guard hold(m_lock);
    Directory before = std::exchange(m_now, saved);
    m_now = *Save();  // files of its own
    for (auto& [path, file] : m_now.files) {
        const auto open = before.files.find(path);
        if (open == before.files.end()) continue;
        file->Share = open->second->Share;
        *open->second = *file;
        file = open->second;
    }
    m_from = 0;
    m_journaled = Save();
}

void PlayedFiles::FollowPower(std::function<bool()> isCut) {
    m_isCut = std::move(isCut);
    m_journaled = Save();
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
    const auto found = m_now.files.find(machine::FoldName(path));
    return found == m_now.files.end() ? nullptr : found->second.get();
}
