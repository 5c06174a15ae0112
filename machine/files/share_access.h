// Share access of one file: what its openers may do and what they grant to each other, by the platform's rules.
// Opens by the driver and opens by the guest's programs are counted here alike.
#pragma once
#include "platform/kernel.h"

namespace machine {

// The kinds of access that sharing is about; opens that ask for none of them (only SYNCHRONIZE, attributes)
// are never refused and hold nothing.
struct ShareClaim {
    bool read = false, write = false, remove = false;
    bool shareRead = false, shareWrite = false, shareRemove = false;

    bool Counts() const { return read || write || remove; }
};

// `share` is a mask of FILE_SHARE_ bits; generic rights count as what they stand for.
ShareClaim MakeShareClaim(ACCESS_MASK access, ULONG share);

// Not synchronised: the owner's lock guards it.
class ShareAccess {
public:
    // Whether an open with this claim can stand beside those admitted so far, in both directions.
    bool Allows(const ShareClaim& claim) const;
    void Admit(const ShareClaim& claim);  // the caller has asked Allows()
    void Leave(const ShareClaim& claim);  // gives back what Admit() took

private:
    unsigned opens_ = 0;
    unsigned readers_ = 0, writers_ = 0, removers_ = 0;
    unsigned sharedRead_ = 0, sharedWrite_ = 0, sharedRemove_ = 0;
};

}  // namespace machine
