#include <gtest/gtest.h>
#include <string>
#include "driver/record/format_string.h"

namespace {

template <class... Args>
std::u16string Format(PCWSTR format, Args... args) {
    WCHAR buffer[64];
    UNICODE_STRING to = {0, sizeof(buffer), buffer};
    EXPECT_EQ(STATUS_SUCCESS, FormatString(&to, format, args...));
    return std::u16string(to.Buffer, to.Length / sizeof(WCHAR));
}

TEST(FormatString, Directives) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Device\\V");
    EXPECT_EQ(u"\\Device\\V\\kvr.SWP.07", Format(u"%wZ\\kvr.SWP.%02d", &name, 7));
    EXPECT_EQ(u"202605040930", Format(u"%04u%02u%02u%02u%02u", 2026u, 5u, 4u, 9u, 30u));
    EXPECT_EQ(u"-2147483648 4294967295 0", Format(u"%d %u %d", INT32_MIN, UINT32_MAX, 0));
    EXPECT_EQ(u"00ff 00FF    a", Format(u"%04x %04X %4x", 255, 255, 10));
    EXPECT_EQ(u"-05          -5", Format(u"%03d %11d", -5, -5));
    EXPECT_EQ(u"", Format(u""));
    EXPECT_EQ(u"x wide 100%", Format(u"%c %ws 100%%", u'x', u"wide"));
}

TEST(FormatString, WhatDoesNotFitIsCut) {
    WCHAR buffer[5] = {u'#', u'#', u'#', u'#', u'#'};
    UNICODE_STRING to = {0, 4 * sizeof(WCHAR), buffer};
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, FormatString(&to, u"%05d", 7));
    EXPECT_EQ(8, to.Length);
    EXPECT_EQ(u"0000#", std::u16string(buffer, 5));
    EXPECT_EQ(STATUS_SUCCESS, FormatString(&to, u"%d", 1234));
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, FormatString(&to, u"%99999999999d", 7)) << "a huge width ends";
    EXPECT_EQ(STATUS_SUCCESS, FormatString(&to, u""));
    EXPECT_EQ(0, to.Length);
    to.Length = to.MaximumLength + 2;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, FormatString(&to, u"%d", 1));
}

}  // namespace
