// A disk behind a network block device server: on another host, or in a format that a program beside us reads.
//
// A lost connection is made anew, with growing pauses, and what was under way is sent again; the machine
// notices a delay. A disk that does not answer for long is an I/O error, and works again as soon as it answers.
//
// Why sending again never damages anything:
// - The object closes no connection on which a request is unanswered. A connection that ends was ended by the
//   server or its host, which by then has carried out what it ever will of that connection's requests; nothing
//   old comes behind something new. A request whose caller was told of an error stays under way until then.
// - A write that overlaps an earlier unanswered one is sent when that has been answered. So a repeated write
//   puts the same data in the same place, and no later write has been there.
// - A server that dies may lose what it has answered and not flushed. A copy of each such write is kept until a
//   flush that was sent after its answer succeeds, and all copies are written again, in their order, before
//   anything else is sent on a new connection. A flush thus says the truth whatever happened before it.
#pragma once
#include <chrono>
#include <memory>
#include <string_view>
#include "machine/disk/host_disk.h"

namespace machine {

class RemoteLink;

// Any number of requests are under way at once. A process may fork between Open and the first request, not
// behind it.
class RemoteDisk final : public HostDisk {
public:
    // How long a request may stay without an answer. Operating systems give a disk half a minute and more.
    static constexpr std::chrono::milliseconds kPatience{30'000};

    // Is it a URI of a kind that Open knows: nbd, nbds (with TLS, tls-certificates=FOLDER), nbd+unix,
    // nbds+unix?
    static bool IsUri(std::string_view name);
    // As HostDisk::Open. Refuses a server that offers the disk for reading only, or counts in larger sectors
    // than asked for.
    static std::unique_ptr<RemoteDisk> Open(const std::string& uri, std::uint32_t sectorSize,
                                            std::string& error, std::chrono::milliseconds patience = kPatience);
    ~RemoteDisk() override;

    std::uint64_t Size() const override { return size_; }
    std::uint32_t SectorSize() const override { return sectorSize_; }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    // Never ready: each read goes to the server.
    [[nodiscard]] NTSTATUS ReadAtOnce(std::uint64_t, void*, std::size_t) override { return STATUS_PENDING; }
    std::unique_ptr<ReadUnderWay> BeginRead(std::uint64_t offset, std::size_t length) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override;

private:
    RemoteDisk(std::unique_ptr<RemoteLink> link, std::uint64_t size, std::uint32_t sectorSize);
    NTSTATUS Result(NTSTATUS status);

    const std::unique_ptr<RemoteLink> link_;
    const std::uint64_t size_;
    const std::uint32_t sectorSize_;
};

}  // namespace machine
