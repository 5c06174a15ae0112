#include "machine/boot/registry_text.h"
#include <charconv>
#include <cstdio>
#include "machine/names.h"
#include "posix/utf.h"

namespace machine::registry_text {
namespace {

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

std::string Quote(std::u16string_view name) {
    std::string result = "\"";
    for (std::size_t at = 0; at < name.size();) {
        const std::size_t length = IsPair(name, at) ? 2 : 1;
        const std::u16string_view character = name.substr(at, length);
        if (character == u"\\" || character == u"\"") {
            result += {'\\', static_cast<char>(name[at])};
        } else if (IsPlainName(character)) {
            result += posix::ToUtf8(character);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(name[at]));
            result += escape;
        }
        at += length;
    }
    return result + '"';
}

bool Unquote(std::string_view line, std::size_t& at, std::u16string& name) {
    name.clear();
    if (at >= line.size() || line[at] != '"') return false;
    ++at;
    while (at < line.size() && line[at] != '"') {
        if (line[at] == '\\') {
            if (!ReadEscape(line, ++at, name)) return false;
            continue;
        }
        const std::string_view plain = line.substr(at, line.find_first_of("\\\"", at) - at);
        if (posix::AppendUtf8(plain, posix::Halves::Refused, name) != plain.size()) return false;
        at += plain.size();
    }
    return at++ < line.size();
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
