#include "tool/kvrhost/paste.h"
#include <algorithm>
#include <cctype>

namespace tool {
namespace {

bool IsUnreserved(unsigned char c) {
    return c < 0x80 && (std::isalnum(c) != 0 ||
                        std::string_view("-._~/").find(static_cast<char>(c)) != std::string_view::npos);
}

}  // namespace

std::string ShellWord(std::string_view text) {
    if (!text.empty() && text[0] != '~' && std::all_of(text.begin(), text.end(), IsUnreserved))
        return std::string(text);
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'')
            word += "'\\''";
        else
            word += c;
    }
    return word + "'";
}

std::string UriPath(std::string_view path) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (IsUnreserved(byte))
            encoded += c;
        else
            encoded.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
    }
    return encoded;
}

}  // namespace tool
