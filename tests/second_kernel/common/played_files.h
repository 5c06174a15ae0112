// The file system that a story plays on a memory volume: it decides where files lie, and turns their reads and
// writes into non-cached requests to the top of the volume's stack that carry their file objects. On the volume
// there is nothing but the files' data; what it knows of them lives as long as this does.
#pragma once
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include "machine/files/share_access.h"
#include "platform/host/object/file_provider.h"

inline constexpr ULONG kFileUnit = 0x10000;  // bytes; what space is given out in

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

class PlayedFiles final : public host::FileProvider {
public:
    // Serves the named volume until the boot ends; the bytes from `begin` to `end` are the files'.
    void Mount(PDEVICE_OBJECT volume, LONGLONG begin, LONGLONG end);

    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override;
    NTSTATUS Delete(const std::u16string& path) override;

    // While gated every write of a file waits at the gate, after Arrived was set, until it is let through.
    void Gate();
    void LetOneThrough() { KeSetEvent(&m_pass, 0, FALSE); }
    void OpenGate();
    KEVENT Arrived;

    ULONG PieceUnits = 0;    // new space comes in pieces of at most so many units, 0: any number
    ULONG GapUnits = 0;      // and so many units are left free behind each
    ULONG FolderMarks = 0;   // what a new file inherits
    LONGLONG FileLimit = 0;  // a file that would grow beyond it fails with STATUS_DISK_FULL, 0: no limit

    // The file of that path, or null. Exact while nobody else works on the files.
    [[nodiscard]] const PlayedFile* Find(const std::u16string& path) const;
    // By folded path.
    [[nodiscard]] const std::map<std::u16string, std::shared_ptr<PlayedFile>>& All() const { return m_files; }

private:
    friend class PlayedOpen;
    NTSTATUS Reserve(PlayedFile& file, LONGLONG size);
    bool TakeUnits(PlayedFile& file, ULONG wanted);
    void GiveSpaceBack(PlayedFile& file);
    void WaitAtGate();

    PDEVICE_OBJECT m_volume = nullptr;
    LONGLONG m_begin = 0;
    std::mutex m_lock;  // of the files and their space
    std::map<std::u16string, std::shared_ptr<PlayedFile>> m_files;
    std::vector<bool> m_used;  // units
    std::atomic<bool> m_isGated = false;
    KEVENT m_pass;
};
