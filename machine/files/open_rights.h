// What one open may do with its file's bytes, whichever file system the file lies on.
#pragma once
#include <cstdint>
#include "platform/host/object/file_provider.h"
#include "machine/files/share_access.h"

namespace machine {

class OpenRights {
public:
    // An open that only empties its file claims writing from the others, but may not write.
    OpenRights(const host::FileOpen& request, std::uint32_t sectorBytes)
        : granted_(MakeShareClaim(request.access, 0)),
          unbuffered_((request.options & FILE_NO_INTERMEDIATE_BUFFERING) != 0),
          sector_(sectorBytes) {}

    // STATUS_ACCESS_DENIED without the right; STATUS_INVALID_PARAMETER for a negative offset, and for parts of
    // sectors through an unbuffered open.
    [[nodiscard]] NTSTATUS CheckRead(LONGLONG offset, ULONG length) const {
        return Check(granted_.read, offset, length);
    }
    [[nodiscard]] NTSTATUS CheckWrite(LONGLONG offset, ULONG length) const {
        return Check(granted_.write, offset, length);
    }

private:
    NTSTATUS Check(bool granted, LONGLONG offset, ULONG length) const {
        if (!granted) return STATUS_ACCESS_DENIED;
        const bool aligned = offset >= 0 && offset % sector_ == 0 && length % sector_ == 0;
        return offset < 0 || (unbuffered_ && !aligned) ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
    }

    const ShareClaim granted_;
    const bool unbuffered_;
    const std::uint32_t sector_;
};

}  // namespace machine
