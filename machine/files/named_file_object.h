// A file object with the storage of its name: what a request carries so that filters can tell whose it is.
#pragma once
#include <string>
#include <utility>
#include "platform/kernel.h"
#include "machine/files/volume_io.h"

namespace machine {

// Stays at its address for its whole life; requests in flight and filters hold pointers to it.
class NamedFileObject {
public:
    // `context` is the same for all opens of one file, as the platform's file systems keep it; `flags`: FO_...
    NamedFileObject(VolumeIo& io, std::u16string name, void* context = nullptr, ULONG flags = 0)
        : name_(std::move(name)) {
        const auto bytes = static_cast<USHORT>(name_.size() * sizeof(WCHAR));
        object_.DeviceObject = io.Device();
        object_.Vpb = io.Vpb();
        object_.FsContext = context;
        object_.Flags = flags;
        object_.FileName = {bytes, bytes, name_.data()};
    }
    NamedFileObject(const NamedFileObject&) = delete;
    NamedFileObject& operator=(const NamedFileObject&) = delete;

    PFILE_OBJECT Get() { return &object_; }

private:
    std::u16string name_;
    FILE_OBJECT object_{};
};

}  // namespace machine
