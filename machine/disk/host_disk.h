// A disk that the host gives the machine: an image file, a block device, or a remote disk.
#pragma once
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include "machine/disk/disk.h"

namespace machine {

class HostDisk : public Disk {
public:
    // Opens `name`, a path or a URI, for reading and writing and for nobody else, for as long as the object
    // lives. `sectorSize` in bytes: 512, 4096, or 0 for the smallest of them that the disk can address. Null
    // with one clear sentence in `error` when it is missing, not writable, in use (host_use.h), empty or not a
    // whole number of sectors.
    static std::unique_ptr<HostDisk> Open(const std::string& name, std::uint32_t sectorSize,
                                          std::string& error);

    // A write or flush failed within the last ten seconds since the host had no room for it. To the machine
    // such a failure is one of the disk like any other; whoever serves the disk may know better.
    bool LacksRoom() const;

    // The host's errno of the last write or flush that failed since ForgetFailure, or 0.
    int Failure() const { return failure_; }
    void ForgetFailure() { failure_ = 0; }

protected:
    // Of a write or flush.
    void NoteFailure(int error);

private:
    std::atomic<std::chrono::steady_clock::rep> lackedRoomAt_{0};  // 0: never
    std::atomic<int> failure_{0};
};

}  // namespace machine
