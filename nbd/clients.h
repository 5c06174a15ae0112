// Who is connected to what. Not synchronised: the server's lock guards it.
#pragma once
#include <chrono>
#include <list>
#include <string>
#include <vector>
#include "nbd/export.h"

namespace nbd {

struct Client {
    Export target;
    std::string who;  // "qemu-system-x86 (pid 4711)"
    std::chrono::system_clock::time_point since = std::chrono::system_clock::now();
    bool hasWritten = false;

    // "qemu-system-x86 (pid 4711) on export disk0 since 2026-05-01 12:00:00 UTC"
    std::string Describe(std::size_t connections = 1) const;
    // Connections of one process, or of one address, to one export are one client.
    bool IsSame(const Client& other) const {
        return who == other.who && target.wholeDisk == other.target.wholeDisk &&
               target.number == other.target.number;
    }
    // Whether this client may change that volume.
    bool Uses(unsigned volume, unsigned itsDisk) const {
        return target.wholeDisk ? target.number == itsDisk : target.number == volume;
    }
};

class Clients {
public:
    using Place = std::list<Client>::iterator;
    Place Add(Client client) { return clients_.insert(clients_.end(), std::move(client)); }
    void Remove(Place client) { clients_.erase(client); }

    // Whoever has written so far, each once.
    std::vector<Client> Writers() const;

    std::size_t Count() const { return clients_.size(); }
    std::size_t CountOn(unsigned volume, unsigned itsDisk) const;
    // All that use the volume, each once, with ", " between them.
    std::string DescribeOn(unsigned volume, unsigned itsDisk) const;

private:
    std::list<Client> clients_;
};

}  // namespace nbd
