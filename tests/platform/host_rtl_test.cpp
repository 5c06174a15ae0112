// The run-time library: counted strings, time, version, formats and the sink they end in.
#include <gtest/gtest.h>

#include <clocale>
#include <ctime>
#include <cwctype>
#include <random>

#include "platform/host/clock.h"
#include "platform/host/debug_sink.h"
#include "platform/host/format.h"
#include "platform/host/verifier.h"
#include "platform/host/version.h"
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

TEST(HostStrings, UpperCaseAgreesWithTheLibraryAndKeepsAsciiApart) {
    const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    ASSERT_NE(locale, nullptr);
    int mapped = 0;
    for (unsigned c = 0; c < 0x10000; ++c) {
        const unsigned upper = RtlUpcaseUnicodeChar(static_cast<WCHAR>(c));
        EXPECT_EQ(upper, RtlUpcaseUnicodeChar(static_cast<WCHAR>(upper))) << c;
        if (upper == c) continue;
        ++mapped;
        EXPECT_EQ(upper, towupper_l(static_cast<wint_t>(c), locale)) << c;
        EXPECT_EQ(c < 0x80, upper < 0x80) << c;
    }
    freelocale(locale);
    EXPECT_GT(mapped, 1000);
}

TEST(HostTime, FieldsAgreeWithTheLibrary) {
    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; ++i) {
        const auto seconds = static_cast<LONGLONG>(random() % (20'000ULL * 366 * 86'400 / 10));
        const auto milliseconds = static_cast<LONGLONG>(random() % 1000);
        const time_t unixTime = static_cast<time_t>(seconds - 134'774LL * 86'400);
        LARGE_INTEGER time;
        time.QuadPart = seconds * TicksPerSecond + milliseconds * 10'000 + 9'999;
        TIME_FIELDS fields;
        RtlTimeToTimeFields(&time, &fields);
        tm expected;
        ASSERT_NE(gmtime_r(&unixTime, &expected), nullptr);
        ASSERT_EQ(fields.Year, expected.tm_year + 1900) << seconds;
        ASSERT_EQ(fields.Month, expected.tm_mon + 1) << seconds;
        ASSERT_EQ(fields.Day, expected.tm_mday) << seconds;
        ASSERT_EQ(fields.Hour, expected.tm_hour) << seconds;
        ASSERT_EQ(fields.Minute, expected.tm_min) << seconds;
        ASSERT_EQ(fields.Second, expected.tm_sec) << seconds;
        ASSERT_EQ(fields.Milliseconds, milliseconds) << seconds;
        ASSERT_EQ(fields.Weekday, expected.tm_wday) << seconds;
        ASSERT_EQ(TimeOf(fields.Year, fields.Month, fields.Day, fields.Hour, fields.Minute, fields.Second),
                  seconds * TicksPerSecond);
    }
}

TEST(HostTime, ClockStopsMovesAndFollows) {
    const LONGLONG noon = TimeOf(2031, 5, 6, 12);
    SetSystemTime(noon);
    AdvanceTime(30 * TicksPerSecond);
    LARGE_INTEGER now, local;
    KeQuerySystemTime(&now);
    EXPECT_EQ(now.QuadPart, noon + 30 * TicksPerSecond);
    SetTimeZoneBias(-90);
    ExSystemTimeToLocalTime(&now, &local);
    EXPECT_EQ(local.QuadPart, TimeOf(2031, 5, 6, 13, 30, 30));
    SetTimeZoneBias(0);
    FollowRealClock();
    const LONGLONG real = static_cast<LONGLONG>(time(nullptr)) * TicksPerSecond + TimeOf(1970, 1, 1);
    EXPECT_NEAR(static_cast<double>(SystemTime() - real), 0.0, 2.0 * TicksPerSecond);
    AdvanceTime(TicksPerDay);
    EXPECT_GT(SystemTime(), real + TicksPerDay - 2 * TicksPerSecond);
    FollowRealClock();
}

TEST(HostVersion, ReportsOrFails) {
    RTL_OSVERSIONINFOEXW info{};
    EXPECT_EQ(RtlGetVersion(&info), STATUS_INVALID_PARAMETER);
    info.dwOSVersionInfoSize = sizeof info;
    SetOsVersion(6, 1, 7601);
    ASSERT_EQ(RtlGetVersion(&info), STATUS_SUCCESS);
    EXPECT_EQ(info.dwMajorVersion, 6u);
    EXPECT_EQ(info.dwBuildNumber, 7601u);
    EXPECT_EQ(info.dwPlatformId, 2u);
    FailOsVersion(STATUS_UNSUCCESSFUL);
    EXPECT_EQ(RtlGetVersion(&info), STATUS_UNSUCCESSFUL);
    FailOsVersion(STATUS_SUCCESS);
    SetOsVersion(10, 0, 19041);
}

// ---- formats -----------------------------------------------------------------------------------------

template <class... Args>
std::string Formatted(const char* format, Args... args) {
    char text[200];
    const SIZE_T length = Format(text, sizeof text, format, args...);
    return {text, length};
}

TEST(HostFormat, Integers) {
    EXPECT_EQ(Formatted("%d %i %u", -5, 6, 4'000'000'000u), "-5 6 4000000000");
    EXPECT_EQ(Formatted("%08x %x %X %#x %o", 0xabcu, 0xABCDu, 0xabcdu, 0x10u, 8u),
              "00000abc abcd ABCD 0x10 10");
    EXPECT_EQ(Formatted("[%5d|%-5d|%05d|%+d|% d|%.3d]", 42, 42, -42, 42, 42, 7),
              "[   42|42   |-0042|+42| 42|007]");
    EXPECT_EQ(Formatted("%*d|%-*d|", 4, 1, 4, 2), "   1|2   |");
    EXPECT_EQ(Formatted("%hd %hu", 0x1FFFF, 0x12345), "-1 9029");
    EXPECT_EQ(Formatted("%d %I64d", static_cast<LONG>(0x80000000u), -0x7FFFFFFFFFFFFFFFLL - 1),
              "-2147483648 -9223372036854775808");
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

TEST(HostFormat, Strings) {
    UNICODE_STRING name = String(W("\\Device\\kvr+rest"));
    name.Length = 11 * sizeof(WCHAR);
    struct {
        USHORT length, maximumLength;
        const char* buffer;
    } narrow{3, 3, "abcdef"};
    EXPECT_EQ(Formatted("\"%wZ\" %Z|", &name, &narrow), "\"\\Device\\kvr\" abc|");
    EXPECT_EQ(Formatted("%s %S %ws %ls %hs %hS", "n", W("w1"), W("w2"), W("w3"), "h1", "h2"),
              "n w1 w2 w3 h1 h2");
    EXPECT_EQ(Formatted("%5s|%-5s|%.2s|%5.1S|%.3wZ", "ab", "ab", "abc", W("xyz"), &name),
              "   ab|ab   |ab|    x|\\De");
    EXPECT_EQ(Formatted("%c%C%lc%hc|%3c", 'a', 0x416, u'z', 'q', '!'), "a\u0416zq|  !");
    const UNICODE_STRING none{0, 0, nullptr};
    EXPECT_EQ(Formatted("%s %S %wZ %wZ %Z", nullptr, nullptr, nullptr, &none, nullptr),
              "(null) (null) (null) (null) (null)");
    EXPECT_EQ(Formatted("100%% %y%", 1), "100% y");
    const WCHAR pair[] = {0xD83D, 0xDE00, 0xD83D, u'!', 0};
    EXPECT_EQ(Formatted("%S", pair), "\U0001F600\uFFFD!");
}

TEST(HostFormat, CutNeverSplitsACharacter) {
    char text[6];
    EXPECT_EQ(Format(text, sizeof text, "abc%S", W("\u20ac\u20ac")), 3u);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(Format(text, sizeof text, "ab%S", W("\u20ac\u20ac")), 5u);
    EXPECT_STREQ(text, "ab\u20ac");
    EXPECT_EQ(Format(text, sizeof text, "%s", "12345678"), 5u);
    EXPECT_STREQ(text, "12345");
    EXPECT_EQ(Format(text, sizeof text, "abcd%Sx", W("\u00e9")), 4u);
    EXPECT_EQ(Format(text, 1, "x"), 0u);
}

// ---- the sink ----------------------------------------------------------------------------------------

TEST(HostSink, KeepsLinesSinceAMarkAndForgetsTheOldest) {
    const ULONGLONG mark = DebugMark();
    DbgPrint("Kvr!One %d\n", 1);
    DbgPrint("two\nthree");
    EXPECT_EQ(DebugLinesSince(mark), (std::vector<std::string>{"Kvr!One 1", "two", "three"}));
    EXPECT_TRUE(DebugSaid(mark, "One 1"));
    EXPECT_FALSE(DebugSaid(DebugMark(), "One"));
    for (SIZE_T i = 0; i <= DebugRingLines; ++i) DbgPrint("%u\n", static_cast<ULONG>(i));
    const auto lines = DebugLinesSince(mark);
    ASSERT_EQ(lines.size(), DebugRingLines);
    EXPECT_EQ(lines.front(), "1");
}

TEST(HostSink, FollowerHearsEvenWithoutCapture) {
    std::vector<std::string> heard;
    FollowDebug(
        [](void* to, const char* line) { static_cast<std::vector<std::string>*>(to)->emplace_back(line); },
        &heard);
    SetDebugCapture(false);
    DbgPrint("%wZ\n", nullptr);
    FollowDebug(nullptr, nullptr);
    const ULONGLONG mark = DebugMark();
    DbgPrint("nobody listens\n");
    SetDebugCapture(true);
    EXPECT_EQ(heard, std::vector<std::string>{"(null)"});
    EXPECT_EQ(DebugMark(), mark);
}

TEST(HostSink, AssertionIsPrintedAndCountedAndGoesOn) {
    ResetAssertionCount();
    const ULONGLONG mark = DebugMark();
    char condition[] = "0 != uLength", file[] = "swap";
    RtlAssert(condition, file, 77, nullptr);
    EXPECT_EQ(AssertionCount(), 1u);
    EXPECT_TRUE(DebugSaid(mark, "Assertion failed: 0 != uLength"));
    EXPECT_TRUE(DebugSaid(mark, "swap, line 77"));
    ResetAssertionCount();
}

}  // namespace
