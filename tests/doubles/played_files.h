// A file system that a test plays on a volume: it decides where files lie, and turns their reads and writes
// into non-cached requests to the top of the volume's stack that carry their file objects. On the volume there
// is nothing but the files' data; what it knows of them lives as long as this does.
#pragma once
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include "machine/files/share_access.h"
#include "platform/host/object/file_provider.h"

inline constexpr ULONG kFileUnit = 0x1000;  // bytes; what space is given out in, whole sectors of any size

struct FileExtent {
    LONGLONG Offset;  // on the volume
    LONGLONG Length;
};

struct PlayedFile {
    LONGLONG Size = 0;
    ULONG Marks = 0;  // FILE_ATTRIBUTE_COMPRESSED, FILE_ATTRIBUTE_ENCRYPTED
    std::vector<FileExtent> Extents;
    machine::ShareAccess Share;
};

// Thread-safe.
class PlayedFiles final : public host::FileProvider {
public:
    // Moves a part of a file: IRP_MJ_READ or IRP_MJ_WRITE, a place on the volume.
    using Carry = std::function<NTSTATUS(UCHAR major, const FileExtent& place, PUCHAR buffer, PFILE_OBJECT)>;

    // Serves the volume from now on: nobody holds a file open. The bytes from `begin` to `end` are the files';
    // each mount says the same.
    void Attach(PDEVICE_OBJECT volume, LONGLONG begin, LONGLONG end, Carry carry);
    // Likewise until the boot ends, for the host kernel's paths of that volume.
    void Mount(PDEVICE_OBJECT volume, LONGLONG begin, LONGLONG end);
    // From now on every call fails without I/O, also through files that are still open.
    void End() { m_hasEnded = true; }

    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override;
    NTSTATUS Delete(const std::u16string& path) override;

    // While gated every write of a file waits at the gate, after Arrived was set, until it is let through.
    void Gate();
    void LetOneThrough() { KeSetEvent(&m_pass, 0, FALSE); }
    void OpenGate();
    KEVENT Arrived;

    ULONG PieceBytes = 0;    // new space comes in pieces of at most so many bytes, 0: as large as it gets
    ULONG GapBytes = 0;      // and so many are left free behind each; both whole units
    ULONG FolderMarks = 0;   // what a new file inherits
    LONGLONG FileLimit = 0;  // a file that would grow beyond it fails with STATUS_DISK_FULL, 0: no limit

    // By folded path. Exact while nobody works on the files, as what follows.
    using Files = std::map<std::u16string, std::shared_ptr<PlayedFile>>;
    [[nodiscard]] const Files& All() const { return m_now.files; }
    [[nodiscard]] const PlayedFile* Find(const std::u16string& path) const;  // or null

    struct Directory {
        Files files;
        std::vector<bool> used;  // units
    };
    [[nodiscard]] std::shared_ptr<const Directory> Save() const;
    // What is open stays open.
    void Restore(const Directory& saved);
    // Once `isCut` holds the directory stands still, and what would change it is STATUS_DEVICE_POWERED_OFF.
    void FollowPower(std::function<bool()> isCut);
    // What a file system with a journal may show after the cut instead of the directory's last state: creations
    // and deletions since the last write that went through to the disk did not reach the journal.
    void RestoreJournaled() { Restore(Directory(*m_journaled)); }

private:
    friend class PlayedOpen;
    [[nodiscard]] NTSTATUS Standing() const;  // a success while it serves and the directory may change
    NTSTATUS Reserve(PlayedFile& file, LONGLONG size);
    bool TakeUnits(PlayedFile& file, ULONG wanted);
    void GiveSpaceBack(PlayedFile& file);
    void Grew(PlayedFile& file, LONGLONG size);  // its size is at least `size` now
    void WaitAtGate();

    PDEVICE_OBJECT m_volume = nullptr;
    LONGLONG m_begin = 0;
    Carry m_carry;
    std::atomic<bool> m_hasEnded = false;
    std::mutex m_lock;  // of what follows
    Directory m_now;
    std::ptrdiff_t m_from = 0;  // no unit below it is free
    std::function<bool()> m_isCut;
    std::shared_ptr<const Directory> m_journaled;
    std::atomic<bool> m_isGated = false;
    KEVENT m_pass;
};
