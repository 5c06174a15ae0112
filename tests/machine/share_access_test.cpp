#include <gtest/gtest.h>
#include "machine/files/share_access.h"

namespace {

using machine::MakeShareClaim;
using machine::ShareAccess;
using machine::ShareClaim;

constexpr ACCESS_MASK kRights[] = {FILE_READ_DATA, FILE_WRITE_DATA, DELETE};

// An opening is six bits: what it does, and what it lets others do.
ShareClaim ClaimOf(unsigned opening) {
    ACCESS_MASK access = SYNCHRONIZE;
    for (unsigned i = 0; i < 3; ++i) access |= (opening >> i & 1) != 0 ? kRights[i] : 0;
    return MakeShareClaim(access, opening >> 3);
}

// Nobody does what the other one does not grant; who does nothing does not count.
bool Compatible(unsigned a, unsigned b) {
    const unsigned does = a & 7, otherDoes = b & 7;
    return does == 0 || otherDoes == 0 || ((does & ~(b >> 3)) == 0 && (otherDoes & ~(a >> 3)) == 0);
}

TEST(ShareAccess, AnOpenStandsBesideAllOthersOrIsRefused) {
    for (unsigned triple = 0; triple < 64 * 64 * 64; ++triple) {
        const unsigned first = triple & 63, second = triple >> 6 & 63, third = triple >> 12;
        ShareAccess share;
        share.Admit(ClaimOf(first));
        ASSERT_EQ(share.Allows(ClaimOf(second)), Compatible(first, second));
        share.Admit(ClaimOf(second));
        ASSERT_EQ(share.Allows(ClaimOf(third)), Compatible(first, third) && Compatible(second, third));
        share.Leave(ClaimOf(first));
        ASSERT_EQ(share.Allows(ClaimOf(third)), Compatible(second, third)) << "a closed file holds nothing";
    }
}

TEST(ShareAccess, GenericRightsCountAsWhatTheyStandFor) {
    ShareAccess share;
    share.Admit(MakeShareClaim(GENERIC_READ, FILE_SHARE_READ));  // as the driver holds its own file
    EXPECT_TRUE(share.Allows(MakeShareClaim(GENERIC_READ, FILE_SHARE_READ)));
    EXPECT_TRUE(share.Allows(MakeShareClaim(0x20000000, FILE_SHARE_READ)));   // execute
    EXPECT_FALSE(share.Allows(MakeShareClaim(0x40000000, FILE_SHARE_READ)));  // write
    EXPECT_FALSE(share.Allows(MakeShareClaim(0x10000000, FILE_SHARE_READ)));  // all
    EXPECT_FALSE(share.Allows(MakeShareClaim(0x4, FILE_SHARE_READ)));         // append
    EXPECT_FALSE(share.Allows(MakeShareClaim(GENERIC_READ, 0)));
}

}  // namespace
