// The contents of one file: reads, writes in place, growing and emptying.
//
// The data path is our own. A write inside the initialised part touches the data alone; a write that grows the
// file takes space, writes the data, and then stores what finds it, so that a block of a file never lies
// uninitialised and a request refused in between leaves the file as it was. Files whose data only the library
// can find, which the driver's files never are, go through it.
#pragma once
#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include "machine/files/mounted_volume.h"

namespace machine {

class FileData {
public:
    FileData(MountedVolume& volume, const FileId& id) : volume_(volume), id_(id) {}

    const FileId& Id() const { return id_; }
    // Learns where the file lies; before anything else, while no other thread knows of the file. The caller
    // holds the volume's lock (which the analysis cannot tell to be the one of this file's volume).
    [[nodiscard]] NTSTATUS Load() KVR_NO_ANALYSIS;

    // `file` is what the requests carry. The contracts are those of host::OpenFile.
    [[nodiscard]] NTSTATUS Read(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length,
                                ULONG& done);
    [[nodiscard]] NTSTATUS Write(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length,
                                 ULONG& done);
    // Makes the file empty and gives it `attributes`.
    [[nodiscard]] NTSTATUS Truncate(ULONG attributes);
    // For a file that is gone from the volume: its sectors are nobody's. No transfer is under way or to come.
    void Trim() const { shape_.runs.Trim(volume_.Io()); }
    // Waits for transfers under way; every later one is STATUS_DEVICE_NOT_READY.
    void Disconnect();
    // Waits likewise; every later transfer is STATUS_DEVICE_BUSY until Resume(), after which the next one
    // learns anew where the file lies.
    void Suspend();
    void Resume();

    // Whether the directory's copy of the sizes and the times are behind.
    bool Touched() const { return touched_.load(std::memory_order_relaxed); }

private:
    enum class Connection {
        Connected,
        Suspended,
        Stale,  // the shape is that of before a suspension
        Gone,
    };
    [[nodiscard]] NTSTATUS Reconnect();
    [[nodiscard]] NTSTATUS Connected() const;

    [[nodiscard]] NTSTATUS ReadRange(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length);
    [[nodiscard]] NTSTATUS WriteInPlace(const FileWrite& write);
    [[nodiscard]] NTSTATUS WriteAnywhere(const FileWrite& write);
    [[nodiscard]] NTSTATUS WriteByLibrary(const FileWrite& write);
    [[nodiscard]] NTSTATUS Extend(const FileWrite& write);

    MountedVolume& volume_;
    const FileId id_;
    std::atomic<bool> touched_ = false;
    // Shared by transfers that leave the shape alone, exclusive for the others. Taken before the volume's lock.
    std::shared_mutex content_;
    std::atomic<Connection> connection_ = Connection::Connected;  // changes under content_ alone
    FileShape shape_;
};

}  // namespace machine
