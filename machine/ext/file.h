// The contents of one file on an ext volume: reads, writes in place, growing and emptying.
//
// The data path is our own. A write within the file touches the data alone; one that grows the file takes
// blocks, writes the data and the zeros around them, and then stores bitmaps and inode, so that a block of a
// file never lies uninitialised and a request refused in between leaves the file as it was. Files with holes or
// with blocks that are reserved only are read through the library and not written.
#pragma once
#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include "machine/ext/directory.h"
#include "machine/files/file_runs.h"

namespace machine {

class ExtFile {
public:
    ExtFile(ExtVolume& volume, ExtReference reference) : volume_(volume), reference_(reference) {}

    const ExtReference& Reference() const { return reference_; }
    // Learns where the file lies; before anything else, while no other thread knows of the file. The caller
    // holds the volume's lock (which the analysis cannot tell to be the one of this file's volume).
    [[nodiscard]] NTSTATUS Load() KVR_NO_ANALYSIS;

    // `file` is what the requests carry. The contracts are those of host::OpenFile.
    [[nodiscard]] NTSTATUS Read(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length,
                                ULONG& done);
    [[nodiscard]] NTSTATUS Write(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length,
                                 ULONG& done);
    // Makes the file empty and, with FILE_ATTRIBUTE_SYSTEM in `attributes`, root's and immutable; another file
    // keeps the mode that its owner gave it.
    [[nodiscard]] NTSTATUS Truncate(ULONG attributes);
    // Waits for transfers under way; every later one is STATUS_DEVICE_NOT_READY.
    void Disconnect();
    // Waits likewise; every later transfer is STATUS_DEVICE_BUSY until Resume(), after which the next one
    // learns anew where the file lies.
    void Suspend();
    void Resume();

private:
    struct Shape {
        std::uint64_t size = 0;  // bytes
        bool special = false;    // has holes, or blocks that hold no data yet
        FileRuns runs;           // empty if special
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
    [[nodiscard]] NTSTATUS LoadShape(const ExtOperation& operation, Shape& shape) const;
    [[nodiscard]] NTSTATUS ReadByLibrary(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length);
    [[nodiscard]] NTSTATUS Extend(const Growth& growth);
    [[nodiscard]] NTSTATUS ExtendWithin(const ExtOperation& operation, const Growth& growth,
                                        Shape& shape) const;
    [[nodiscard]] NTSTATUS Fill(const ExtOperation& operation, const Growth& growth, Shape& shape) const;
    bool OverwritesInPlace(std::uint64_t offset, ULONG length) const;

    ExtVolume& volume_;
    const ExtReference reference_;
    // Shared by transfers that leave the shape alone, exclusive for the others. Taken before the volume's lock.
    std::shared_mutex content_;
    std::atomic<Connection> connection_ = Connection::Connected;  // changes under content_ alone
    Shape shape_;
};

}  // namespace machine
