#include <gtest/gtest.h>
#include <vector>
#include "machine/files/share_access.h"

namespace {

using machine::MakeShareClaim;
using machine::ShareAccess;
using machine::ShareClaim;

struct Opening {
    ACCESS_MASK access;
    ULONG share;
};

std::vector<Opening> AllOpenings() {
    std::vector<Opening> all;
    for (ULONG bits = 0; bits < 64; ++bits)
        all.push_back({SYNCHRONIZE | ((bits & 1) != 0 ? FILE_READ_DATA : 0) |
                           ((bits & 2) != 0 ? FILE_WRITE_DATA : 0) | ((bits & 4) != 0 ? DELETE : 0),
                       bits >> 3});
    return all;
}

// The rule between two opens, put the other way round: nobody does what the other one does not grant.
bool Grants(const Opening& by, const Opening& to) {
    return ((to.access & FILE_READ_DATA) == 0 || (by.share & FILE_SHARE_READ) != 0) &&
           ((to.access & FILE_WRITE_DATA) == 0 || (by.share & FILE_SHARE_WRITE) != 0) &&
           ((to.access & DELETE) == 0 || (by.share & FILE_SHARE_DELETE) != 0);
}

bool Compatible(const Opening& a, const Opening& b) {
    if (a.access == SYNCHRONIZE || b.access == SYNCHRONIZE) return true;
    return Grants(a, b) && Grants(b, a);
}

TEST(ShareAccess, AnOpenStandsBesideAllOthersOrIsRefused) {
    const std::vector<Opening> all = AllOpenings();
    for (const Opening& first : all)
        for (const Opening& second : all)
            for (const Opening& third : all) {
                ShareAccess share;
                const ShareClaim claim = MakeShareClaim(first.access, first.share);
                share.Admit(claim);
                const ShareClaim other = MakeShareClaim(second.access, second.share);
                ASSERT_EQ(share.Allows(other), Compatible(first, second));
                if (!share.Allows(other)) continue;
                share.Admit(other);
                const ShareClaim last = MakeShareClaim(third.access, third.share);
                ASSERT_EQ(share.Allows(last), Compatible(first, third) && Compatible(second, third));
                share.Leave(claim);
                ASSERT_EQ(share.Allows(last), Compatible(second, third)) << "a closed file holds nothing";
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
