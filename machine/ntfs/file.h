// The contents of one file: reads, writes in place, growing and emptying.
//
// The data path is our own. A write inside the initialised part touches the data alone; a write that grows the
// file takes the clusters, writes the data, and then stores bitmap and record, so that a request refused in
// between leaves the file as it was. Compressed, sparse and encrypted files, which the driver's files never
// are, go through the library.
#pragma once
#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include "machine/files/file_runs.h"
#include "machine/ntfs/volume.h"

namespace machine {

class NtfsInode;

class NtfsFile {
public:
    NtfsFile(NtfsVolume& volume, std::uint64_t reference) : volume_(volume), reference_(reference) {}

    std::uint64_t Reference() const { return reference_; }
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
    // Waits for transfers under way; every later one is STATUS_DEVICE_NOT_READY.
    void Disconnect();
    // Waits likewise; every later transfer is STATUS_DEVICE_BUSY until Resume(), after which the next one
    // learns anew where the file lies.
    void Suspend();
    void Resume();

    // Whether the directory's copy of the sizes and the times are behind.
    bool Touched() const { return touched_.load(std::memory_order_relaxed); }

private:
    // What the record says of the data.
    struct Shape {
        std::uint64_t size = 0, initialized = 0;  // bytes
        bool resident = false;                    // lies in the record itself
        bool special = false;                     // needs the library for its data
        FileRuns runs;                            // empty if resident or special
    };
    struct Growth;

    enum class Connection {
        Connected,
        Suspended,
        Stale,  // the shape is that of before a suspension
        Gone,
    };
    [[nodiscard]] NTSTATUS Reconnect();
    [[nodiscard]] NTSTATUS Connected() const;

    [[nodiscard]] NTSTATUS LoadShape(const NtfsOperation& operation, Shape& shape) const;
    [[nodiscard]] NTSTATUS ReadByLibrary(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length);
    [[nodiscard]] NTSTATUS WriteByLibrary(PFILE_OBJECT file, std::uint64_t offset, const void* buffer,
                                          ULONG length);
    [[nodiscard]] NTSTATUS Extend(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length);
    [[nodiscard]] NTSTATUS ExtendWithin(const NtfsOperation& operation, const Growth& growth,
                                        Shape& shape) const;
    bool OverwritesInPlace(std::uint64_t offset, ULONG length) const;

    NtfsVolume& volume_;
    const std::uint64_t reference_;
    std::atomic<bool> touched_ = false;
    // Shared by transfers that leave the shape alone, exclusive for the others. Taken before the volume's lock.
    std::shared_mutex content_;
    std::atomic<Connection> connection_ = Connection::Connected;  // changes under content_ alone
    Shape shape_;
};

}  // namespace machine
