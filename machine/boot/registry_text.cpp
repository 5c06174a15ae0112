#include "machine/boot/registry_text.h"
#include <charconv>
#include <cstdio>

namespace machine::registry_text {
namespace {

bool IsHigh(char16_t c) {
    return c >= 0xD800 && c < 0xDC00;
}
bool IsLow(char16_t c) {
    return c >= 0xDC00 && c < 0xE000;
}

void AppendUtf8(std::string& to, std::uint32_t c) {
    const auto tail = [&](int shift) { to += static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
        to += static_cast<char>(c);
    } else if (c < 0x800) {
        to += static_cast<char>(0xC0 | c >> 6);
        tail(0);
    } else if (c < 0x10000) {
        to += static_cast<char>(0xE0 | c >> 12);
        tail(6), tail(0);
    } else {
        to += static_cast<char>(0xF0 | c >> 18);
        tail(12), tail(6), tail(0);
    }
}

// Decodes one character at `at`; refuses what is not the shortest form of a character.
bool NextUtf8(std::string_view text, std::size_t& at, std::uint32_t& c) {
    const auto first = static_cast<unsigned char>(text[at++]);
    if (first < 0x80) {
        c = first;
        return true;
    }
    const int more = first >= 0xF0 && first < 0xF5   ? 3
                     : first >= 0xE0 && first < 0xF0 ? 2
                     : first >= 0xC2                 ? 1
                                                     : 0;
    if (more == 0 || first >= 0xF5) return false;
    c = first & (0x3F >> more);
    for (int i = 0; i < more; ++i, ++at) {
        if (at >= text.size() || (text[at] & 0xC0) != 0x80) return false;
        c = c << 6 | (text[at] & 0x3F);
    }
    const std::uint32_t least = more == 3 ? 0x10000 : more == 2 ? 0x800 : 0x80;
    return c >= least && c <= 0x10FFFF && !(c >= 0xD800 && c < 0xE000);
}

void AppendUtf16(std::u16string& to, std::uint32_t c) {
    if (c >= 0x10000) {
        to += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
        to += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
        to += static_cast<char16_t>(c);
    }
}

template <class Number>
bool ParseHex(std::string_view text, Number& value) {
    const auto [end, bad] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return bad == std::errc{} && end == text.data() + text.size();
}

bool ReadEscape(std::string_view line, std::size_t& at, std::u16string& name) {
    if (at >= line.size()) return false;
    const char kind = line[at++];
    if (kind == '\\' || kind == '"') {
        name += static_cast<char16_t>(kind);
        return true;
    }
    std::uint16_t unit = 0;
    if (kind != 'u' || line.size() - at < 4 || !ParseHex(line.substr(at, 4), unit)) return false;
    at += 4;
    name += static_cast<char16_t>(unit);
    return true;
}

}  // namespace

bool IsPlainName(std::u16string_view name) {
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t c = name[i];
        if (c < 0x20 || c == 0x7F || IsLow(c)) return false;
        if (IsHigh(c) && (++i == name.size() || !IsLow(name[i]))) return false;
    }
    return true;
}

std::string ToUtf8(std::u16string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t c = text[i];
        if (IsHigh(text[i]) && i + 1 < text.size() && IsLow(text[i + 1])) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00u);
        }
        AppendUtf8(result, c);
    }
    return result;
}

bool FromUtf8(std::string_view text, std::u16string& name) {
    name.clear();
    for (std::size_t at = 0; at < text.size();) {
        std::uint32_t c = 0;
        if (!NextUtf8(text, at, c)) return false;
        AppendUtf16(name, c);
    }
    return true;
}

std::string Quote(std::u16string_view name) {
    std::string result = "\"";
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t c = name[i];
        const bool pair = IsHigh(c) && i + 1 < name.size() && IsLow(name[i + 1]);
        if (c == u'\\' || c == u'"') {
            result += {'\\', static_cast<char>(c)};
        } else if (pair) {
            result += ToUtf8(name.substr(i++, 2));
        } else if (c < 0x20 || c == 0x7F || IsHigh(c) || IsLow(c)) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            result += escape;
        } else {
            AppendUtf8(result, c);
        }
    }
    return result + '"';
}

bool Unquote(std::string_view line, std::size_t& at, std::u16string& name) {
    name.clear();
    if (at >= line.size() || line[at] != '"') return false;
    ++at;
    while (at < line.size()) {
        if (line[at] == '"') {
            ++at;
            return true;
        }
        if (line[at] == '\\') {
            if (!ReadEscape(line, ++at, name)) return false;
            continue;
        }
        std::uint32_t c = 0;
        if (!NextUtf8(line, at, c)) return false;
        AppendUtf16(name, c);
    }
    return false;
}

std::string WriteData(ULONG type, const std::vector<UCHAR>& data) {
    char text[24];
    if (type == REG_DWORD && data.size() == 4) {
        const ULONG value = data[0] | data[1] << 8 | data[2] << 16 | static_cast<ULONG>(data[3]) << 24;
        std::snprintf(text, sizeof text, "dword:%08x", value);
        return text;
    }
    std::snprintf(text, sizeof text, type == REG_BINARY ? "hex:" : "hex(%x):", type);
    std::string result = text;
    for (std::size_t i = 0; i < data.size(); ++i) {
        std::snprintf(text, sizeof text, "%02x", data[i]);
        if (i != 0) result += i % 24 == 0 ? ",\\\n  " : ",";
        result += text;
    }
    return result;
}

bool ReadData(std::string_view text, ULONG& type, std::vector<UCHAR>& data) {
    data.clear();
    if (text.starts_with("dword:")) {
        ULONG value = 0;
        type = REG_DWORD;
        if (!ParseHex(text.substr(6), value)) return false;
        for (int shift = 0; shift < 32; shift += 8) data.push_back(static_cast<UCHAR>(value >> shift));
        return true;
    }
    const std::size_t colon = text.find(':');
    if (!text.starts_with("hex") || colon == text.npos) return false;
    std::string_view kind = text.substr(3, colon - 3);
    type = REG_BINARY;
    if (!kind.empty() && (kind.size() < 3 || kind.front() != '(' || kind.back() != ')' ||
                          !ParseHex(kind.substr(1, kind.size() - 2), type))) {
        return false;
    }
    for (std::string_view rest = text.substr(colon + 1); !rest.empty();) {
        const std::size_t comma = rest.find(',');
        UCHAR byte = 0;
        if (rest.substr(0, comma).size() > 2 || !ParseHex(rest.substr(0, comma), byte)) return false;
        data.push_back(byte);
        if (comma == rest.npos) break;
        rest.remove_prefix(comma + 1);
        if (rest.empty()) return false;
    }
    return true;
}

}  // namespace machine::registry_text
