#include "posix/utf.h"
#include <iterator>
#include <utf8.h>

namespace posix {
namespace {

constexpr std::size_t kHalfBytes = 3;

bool IsPair(std::u16string_view text, std::size_t at) {
    return utf8::internal::is_lead_surrogate(text[at]) && at + 1 < text.size() &&
           utf8::internal::is_trail_surrogate(text[at + 1]);
}

// Half of a surrogate pair as ToUtf8 writes it.
bool IsHalf(std::string_view bytes) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    return bytes.size() >= kHalfBytes && byte(0) == 0xED && byte(1) >= 0xA0 && byte(1) < 0xC0 &&
           (byte(2) & 0xC0) == 0x80;
}

}  // namespace

std::string ToUtf8(std::u16string_view text) {
    std::string bytes;
    const auto out = std::back_inserter(bytes);
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (IsPair(text, at)) {
            utf8::unchecked::utf16to8(&text[at], &text[at] + 2, out);
            ++at;
        } else {
            utf8::unchecked::append(text[at], out);
        }
    }
    return bytes;
}

std::size_t AppendUtf8(std::string_view bytes, Halves halves, std::u16string& text) {
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::string_view rest = bytes.substr(at);
        const std::size_t sound = utf8::find_invalid(rest);
        const std::size_t length = sound == rest.npos ? rest.size() : sound;
        utf8::unchecked::utf8to16(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length),
                                  std::back_inserter(text));
        at += length;
        if (at == bytes.size() || halves == Halves::Refused || !IsHalf(bytes.substr(at))) break;
        const auto half = bytes.begin() + static_cast<std::ptrdiff_t>(at);
        utf8::unchecked::utf8to16(half, half + kHalfBytes, std::back_inserter(text));
        at += kHalfBytes;
    }
    return at;
}

bool FromUtf8(std::string_view bytes, std::u16string& text, Halves halves) {
    text.clear();
    return AppendUtf8(bytes, halves, text) == bytes.size();
}

}  // namespace posix
