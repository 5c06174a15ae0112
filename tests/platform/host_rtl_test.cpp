// The run-time library: counted strings and formats.
#include <gtest/gtest.h>

#include "platform/host/rtl/format.h"
#include "platform/kernel.h"

namespace {

using namespace host;

UNICODE_STRING String(PCWSTR text) {
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    return string;
}

struct Buffer {
    WCHAR characters[8];
    UNICODE_STRING string{0, sizeof characters, characters};
    explicit Buffer(PCWSTR text) {
        for (WCHAR& c : characters) c = u'?';
        const UNICODE_STRING from = String(text);
        RtlCopyUnicodeString(&string, &from);
    }
    std::u16string Text() const { return {string.Buffer, string.Length / sizeof(WCHAR)}; }
};

TEST(HostStrings, CopyCutsAndTerminatesWhereThereIsRoom) {
    const Buffer fits(W("seven77"));
    EXPECT_EQ(fits.Text(), W("seven77"));
    EXPECT_EQ(fits.characters[7], 0);
    EXPECT_EQ(Buffer(W("exactly8+more")).Text(), W("exactly8"));
    Buffer emptied(W("abc"));
    RtlCopyUnicodeString(&emptied.string, nullptr);
    EXPECT_EQ(emptied.string.Length, 0);
}

TEST(HostStrings, AppendIsAllOrNothing) {
    Buffer buffer(W("12345"));
    EXPECT_EQ(RtlAppendUnicodeToString(&buffer.string, W("6789")), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(buffer.Text(), W("12345"));
    EXPECT_EQ(RtlAppendUnicodeToString(&buffer.string, W("678")), STATUS_SUCCESS);
    EXPECT_EQ(buffer.Text(), W("12345678"));
}

TEST(HostStrings, CompareIsOrdinalOnUpperCase) {
    const auto compare = [](PCWSTR a, PCWSTR b, BOOLEAN ignoreCase) {
        const UNICODE_STRING x = String(a), y = String(b);
        return RtlCompareUnicodeString(&x, &y, ignoreCase);
    };
    EXPECT_EQ(compare(W("Volume"), W("vOLUME"), TRUE), 0);
    EXPECT_NE(compare(W("Volume"), W("vOLUME"), FALSE), 0);
    EXPECT_LT(compare(W("ab"), W("abc"), TRUE), 0);
    EXPECT_GT(compare(W("b"), W("abc"), TRUE), 0);
    EXPECT_EQ(compare(W("\u00e4\u03c9\u044f"), W("\u00c4\u03a9\u042f"), TRUE), 0);
    EXPECT_LT(compare(W("_"), W("a"), FALSE), 0);
    EXPECT_GT(compare(W("_"), W("a"), TRUE), 0);  // upper-case letters come before the underscore
}

template <class... Args>
std::string Formatted(const char* format, Args... args) {
    char text[200];
    const SIZE_T length = Format(text, sizeof text, format, args...);
    return {text, length};
}

// `long` is 32 bits wide there: a LONG and the argument behind it must come out whole.
TEST(HostFormat, WidthsAreThePlatforms) {
    const LONG small = -1;
    const ULONG large = 0xFEDCBA98;
    EXPECT_EQ(Formatted("%ld %lu %lx %d", small, large, large, 3), "-1 4275878552 fedcba98 3");
    EXPECT_EQ(Formatted("%I64x %I64X %I64u %llx %lld %I32x %Ix", 0x123456789ABCDEF0ULL, 0xFULL, ~0ULL,
                        0x1FFFFFFFFULL, -2LL, large, 0x1122334455ULL),
              "123456789abcdef0 F 18446744073709551615 1ffffffff -2 fedcba98 1122334455");
    EXPECT_EQ(Formatted("%016I64x|%-18I64d|%I64x", 0xABULL, 5LL, 0ULL),
              "00000000000000ab|5                 |0");
    EXPECT_EQ(Formatted("%p", reinterpret_cast<void*>(0xFFFF8A0012ABCULL)), "000FFFF8A0012ABC");
}

}  // namespace
