#include "machine/files/share_access.h"

namespace machine {
namespace {

constexpr ACCESS_MASK kAppendData = 0x4;
constexpr ACCESS_MASK kExecute = 0x20;
constexpr ACCESS_MASK kMaximumAllowed = 0x02000000;
constexpr ACCESS_MASK kGenericAll = 0x10000000;
constexpr ACCESS_MASK kGenericExecute = 0x20000000;
constexpr ACCESS_MASK kGenericWrite = 0x40000000;
constexpr ACCESS_MASK kEverything = kGenericAll | kMaximumAllowed;

}  // namespace

ShareClaim MakeShareClaim(ACCESS_MASK access, ULONG share) {
    ShareClaim claim;
    claim.read = (access & (FILE_READ_DATA | kExecute | GENERIC_READ | kGenericExecute | kEverything)) != 0;
    claim.write = (access & (FILE_WRITE_DATA | kAppendData | kGenericWrite | kEverything)) != 0;
    claim.remove = (access & (DELETE | kEverything)) != 0;
    claim.shareRead = (share & FILE_SHARE_READ) != 0;
    claim.shareWrite = (share & FILE_SHARE_WRITE) != 0;
    claim.shareRemove = (share & FILE_SHARE_DELETE) != 0;
    return claim;
}

bool ShareAccess::Allows(const ShareClaim& claim) const {
    if (!claim.Counts()) return true;
    const bool theyShare = (!claim.read || sharedRead_ == opens_) && (!claim.write || sharedWrite_ == opens_) &&
                           (!claim.remove || sharedRemove_ == opens_);
    const bool weShare = (readers_ == 0 || claim.shareRead) && (writers_ == 0 || claim.shareWrite) &&
                         (removers_ == 0 || claim.shareRemove);
    return theyShare && weShare;
}

void ShareAccess::Admit(const ShareClaim& claim) {
    if (!claim.Counts()) return;
    ++opens_;
    readers_ += claim.read;
    writers_ += claim.write;
    removers_ += claim.remove;
    sharedRead_ += claim.shareRead;
    sharedWrite_ += claim.shareWrite;
    sharedRemove_ += claim.shareRemove;
}

void ShareAccess::Leave(const ShareClaim& claim) {
    if (!claim.Counts()) return;
    --opens_;
    readers_ -= claim.read;
    writers_ -= claim.write;
    removers_ -= claim.remove;
    sharedRead_ -= claim.shareRead;
    sharedWrite_ -= claim.shareWrite;
    sharedRemove_ -= claim.shareRemove;
}

}  // namespace machine
