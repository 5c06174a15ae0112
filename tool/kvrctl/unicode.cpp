#include "tool/kvrctl/unicode.h"
#include <algorithm>
#include <cstdint>
#include "tool/kvrctl/failure.h"

namespace ctl {
namespace {

bool IsHighSurrogate(char32_t c) {
    return c >= 0xD800 && c < 0xDC00;
}
bool IsLowSurrogate(char32_t c) {
    return c >= 0xDC00 && c < 0xE000;
}

void AppendUtf8(std::string& to, char32_t c) {
    const auto tail = [&](int shift) { to += static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
        to += static_cast<char>(c);
    } else if (c < 0x800) {
        to += static_cast<char>(0xC0 | (c >> 6)), tail(0);
    } else if (c < 0x10000) {
        to += static_cast<char>(0xE0 | (c >> 12)), tail(6), tail(0);
    } else {
        to += static_cast<char>(0xF0 | (c >> 18)), tail(12), tail(6), tail(0);
    }
}

void AppendUtf16(std::u16string& to, char32_t c) {
    if (c >= 0x10000) {
        to += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
        to += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
        to += static_cast<char16_t>(c);
    }
}

// The character at `at`, which moves past it; false for what is no UTF-8.
bool DecodeUtf8(std::string_view bytes, std::size_t& at, char32_t& c) {
    const auto first = static_cast<std::uint8_t>(bytes[at]);
    const std::size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (length == 0 || first > 0xF4 || length > bytes.size() - at) return false;
    c = length == 1 ? first : first & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<std::uint8_t>(bytes[at + i]);
        if ((next & 0xC0) != 0x80) return false;
        c = c << 6 | (next & 0x3F);
    }
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < kLeast[length] || c > 0x10FFFF) return false;
    at += length;
    return true;
}

}  // namespace

std::string ToUtf8(std::u16string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1]))
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
        AppendUtf8(bytes, c);
    }
    return bytes;
}

std::u16string FromUtf8(std::string_view bytes, const std::string& what) {
    std::u16string text;
    for (std::size_t at = 0; at < bytes.size();) {
        char32_t c = 0;
        if (!DecodeUtf8(bytes, at, c))
            throw Failure(what + " is neither UTF-8 nor UTF-16 with a byte-order mark (byte " +
                          std::to_string(at + 1) + ")");
        AppendUtf16(text, c);
    }
    return text;
}

char16_t FoldCase(char16_t character) {
    return character >= u'A' && character <= u'Z' ? static_cast<char16_t>(character + 32) : character;
}

bool EqualIgnoringCase(std::u16string_view a, std::u16string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char16_t x, char16_t y) { return FoldCase(x) == FoldCase(y); });
}

}  // namespace ctl
