#include "tool/kvrctl/unicode.h"
#include <algorithm>
#include "client/failure.h"

namespace ctl {

std::u16string FromUtf8(std::string_view bytes, const std::string& what) {
    std::u16string text;
    const std::size_t understood = posix::AppendUtf8(bytes, posix::Halves::Kept, text);
    if (understood != bytes.size())
        throw Failure(what + " is neither UTF-8 nor UTF-16 with a byte-order mark (byte " +
                      std::to_string(understood + 1) + ")");
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
