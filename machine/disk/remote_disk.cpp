#include "machine/disk/remote_disk.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include "machine/disk/remote_link.h"
#include "platform/owners.h"

namespace machine {
namespace {

using Kind = RemoteLink::Kind;

std::uint32_t SectorBytes(const RemoteServer::Facts& facts, std::uint32_t asked) {
    return asked != 0 ? asked : facts.leastBytes <= 512 ? 512 : 4096;
}

// The library encrypts without either, but then it takes any server for the right one.
bool KnowsItsServer(const std::string& uri) {
    return !uri.starts_with("nbds://") || uri.find("tls-certificates=") != uri.npos ||
           uri.find("tls-psk-file=") != uri.npos;
}

// Empty for a server that a disk can be made of.
std::string WhyNot(const RemoteServer::Facts& facts, std::uint32_t sectorSize) {
    const std::string bytes = std::to_string(sectorSize) + " bytes";
    if (!IsValidSectorSize(sectorSize)) return "sectors of " + bytes + " are neither of 512 nor of 4096";
    if (facts.readOnly) return "the server offers it for reading only";
    if (facts.leastBytes > sectorSize)
        return "the server's blocks of " + std::to_string(facts.leastBytes) + " bytes are larger than " + bytes;
    if (facts.size == 0) return "it is empty";
    if (facts.size % sectorSize != 0)
        return "its size of " + std::to_string(facts.size) + " bytes is no whole number of sectors of " + bytes;
    return {};
}

// Nothing was done for want of memory or of a thread.
template <class Work>
NTSTATUS Guarded(const Work& work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return STATUS_INSUFFICIENT_RESOURCES;
    } catch (const std::system_error&) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
}

// In parts that the server takes, all of them under way.
class RemoteRead final : public ReadUnderWay {
public:
    RemoteRead(RemoteLink& link, std::uint64_t offset, std::size_t length) : link_(link) {
        for (std::size_t done = 0, part = 0; done < length; done += part) {
            part = std::min<std::size_t>(length - done, link.MostBytes());
            parts_.push_back(link.Begin(Kind::Read, {offset + done, std::vector<std::uint8_t>(part)}));
        }
    }
    NTSTATUS End(void* buffer) override {
        auto* bytes = static_cast<std::uint8_t*>(buffer);
        for (const auto& part : parts_) {
            RemoteLink::Chunk chunk;
            const NTSTATUS status = link_.End(*part, chunk);
            if (!NT_SUCCESS(status)) return status;
            std::memcpy(bytes, chunk.bytes.data(), chunk.bytes.size());
            bytes += chunk.bytes.size();
        }
        return STATUS_SUCCESS;
    }

private:
    RemoteLink& link_;
    std::vector<std::shared_ptr<RemoteLink::Request>> parts_;
};

}  // namespace

bool RemoteDisk::IsUri(std::string_view name) {
    for (const std::string_view scheme : {"nbd://", "nbds://", "nbd+unix://", "nbds+unix://"})
        if (name.starts_with(scheme)) return true;
    return false;
}

std::unique_ptr<RemoteDisk> RemoteDisk::Open(const std::string& uri, std::uint32_t sectorSize,
                                             std::string& error, std::chrono::milliseconds patience) {
    std::string why;
    std::unique_ptr<RemoteServer> server;
    if (KnowsItsServer(uri))
        server = RemoteServer::Open(uri, why);
    else
        why = "say whom to trust with ?tls-certificates=FOLDER or tls-psk-file=FILE";
    RemoteServer::Facts facts;
    if (server != nullptr) {
        facts = server->Ask();
        sectorSize = SectorBytes(facts, sectorSize);
        why = WhyNot(facts, sectorSize);
    }
    if (!why.empty()) {
        error = "cannot use disk " + uri + ": " + why;
        return nullptr;
    }
    auto link = std::make_unique<RemoteLink>(std::move(server), patience);
    return std::unique_ptr<RemoteDisk>(new RemoteDisk(std::move(link), facts.size, sectorSize));
}

RemoteDisk::RemoteDisk(std::unique_ptr<RemoteLink> link, std::uint64_t size, std::uint32_t sectorSize)
    : link_(std::move(link)), size_(size), sectorSize_(sectorSize) {}

RemoteDisk::~RemoteDisk() = default;

// Of what changes the disk. To the machine the want of room elsewhere is an error of the disk like any other.
NTSTATUS RemoteDisk::Result(NTSTATUS status) {
    if (NT_SUCCESS(status)) return status;
    const bool full = status == STATUS_DISK_FULL;
    NoteFailure(full ? ENOSPC : EIO);
    return full ? STATUS_IO_DEVICE_ERROR : status;
}

NTSTATUS RemoteDisk::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    return Guarded([&] { return RemoteRead(*link_, offset, length).End(buffer); });
}

std::unique_ptr<ReadUnderWay> RemoteDisk::BeginRead(std::uint64_t offset, std::size_t length) {
    std::unique_ptr<ReadUnderWay> read;
    KVR_DISCARD(Guarded([&] {
                    read = std::make_unique<RemoteRead>(*link_, offset, length);
                    return STATUS_SUCCESS;
                }),
                "Read meets the same want");
    return read;
}

NTSTATUS RemoteDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    return Guarded([&] {
        NTSTATUS status = link_->WantsFlush() ? Flush() : STATUS_SUCCESS;
        for (std::size_t done = 0, part = 0; done < length && NT_SUCCESS(status); done += part) {
            part = std::min<std::size_t>(length - done, link_->MostBytes());
            RemoteLink::Chunk chunk{offset + done, {bytes + done, bytes + done + part}};
            status = Result(link_->Carry(Kind::Write, std::move(chunk)));
        }
        return status;
    });
}

NTSTATUS RemoteDisk::Flush() {
    if (!link_->Flushes()) return STATUS_SUCCESS;
    return Guarded([&] { return Result(link_->Carry(Kind::Flush, {})); });
}

}  // namespace machine
