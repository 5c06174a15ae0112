#include "tool/kvrctl/printable.h"
#include <algorithm>
#include "posix/utf.h"

namespace ctl {

std::string Printable(const std::string& text, bool lines) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string shown;
    for (std::size_t at = 0; at < text.size();) {
        std::u16string understood;
        const std::string_view rest = std::string_view(text).substr(at);
        std::size_t length = 1;
        while (length < std::min<std::size_t>(4, rest.size()) && (rest[length] & 0xC0) == 0x80) ++length;
        const bool whole =
            posix::AppendUtf8(rest.substr(0, length), posix::Halves::Refused, understood) == length;
        const bool control = whole && (understood[0] < 0x20 || (understood[0] >= 0x7F && understood[0] < 0xA0));
        if (whole && (!control || (lines && (understood[0] == u'\n' || understood[0] == u'\t')))) {
            shown += rest.substr(0, length);
        } else {
            length = whole ? length : 1;
            for (const char c : rest.substr(0, length)) {
                const auto byte = static_cast<unsigned char>(c);
                shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
            }
        }
        at += length;
    }
    return shown;
}

}  // namespace ctl
