#include <gtest/gtest.h>
#include "redirect/special_names.h"

namespace {

UNICODE_STRING Name(const char16_t* text) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    return name;
}

TEST(SpecialNames, EndsWithName) {
    const UNICODE_STRING suffix = Name(u"\\bootstat.dat");
    const struct {
        const char16_t* name;
        bool ends;
    } table[] = {{u"\\Windows\\BOOTSTAT.DAT", true},
                 {u"\\bootstat.dat", true},
                 {u"bootstat.dat", false},
                 {u"\\bootstat.dat2", false},
                 {u"", false}};
    for (const auto& row : table) {
        const UNICODE_STRING name = Name(row.name);
        EXPECT_EQ(row.ends, EndsWithName(&suffix, &name, TRUE) == 0);
    }
    const UNICODE_STRING upper = Name(u"\\BOOTSTAT.DAT");
    EXPECT_NE(0, EndsWithName(&suffix, &upper, FALSE));
    EXPECT_EQ(-1, EndsWithName(nullptr, &upper, TRUE));
    EXPECT_EQ(-1, EndsWithName(&suffix, nullptr, TRUE));
}

TEST(SpecialNames, RequestFileIsFoundInOrder) {
    IO_STACK_LOCATION stack{};
    IRP request{}, master{};
    FILE_OBJECT original{}, current{}, ofMaster{};
    request.Tail.Overlay.CurrentStackLocation = &stack;
    request.AssociatedIrp.MasterIrp = &master;
    master.Tail.Overlay.OriginalFileObject = &ofMaster;
    EXPECT_EQ(nullptr, FindRequestFile(&request)) << "not an associated request";
    request.Flags = IRP_ASSOCIATED_IRP;
    EXPECT_EQ(&ofMaster, FindRequestFile(&request));
    stack.FileObject = &current;
    EXPECT_EQ(&current, FindRequestFile(&request));
    request.Tail.Overlay.OriginalFileObject = &original;
    EXPECT_EQ(&original, FindRequestFile(&request));
}

}  // namespace
