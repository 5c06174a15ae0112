// Names as the machine compares them.
#pragma once
#include <string>
#include <string_view>
#include "platform/kernel.h"

namespace machine {

// For comparing without regard to case, by the kernel's own table.
inline std::u16string FoldName(std::u16string_view name) {
    std::u16string folded(name);
    for (char16_t& c : folded) c = RtlUpcaseUnicodeChar(c);
    return folded;
}

// Whether a character at `at` takes two units.
inline bool IsPair(std::u16string_view name, std::size_t at) {
    const auto half = [&](std::size_t i, char16_t first) {
        return i < name.size() && (name[i] & 0xFC00) == first;
    };
    return half(at, 0xD800) && half(at + 1, 0xDC00);
}

// Names that text files can hold as they are: without control characters and unpaired surrogates.
inline bool IsPlainName(std::u16string_view name) {
    for (std::size_t at = 0; at < name.size(); ++at) {
        const bool pair = IsPair(name, at);
        if (!pair && (name[at] < 0x20 || name[at] == 0x7F || (name[at] & 0xF800) == 0xD800)) return false;
        if (pair) ++at;
    }
    return true;
}

// A counted string over the characters of `text`, which must outlive it and stay unchanged.
inline UNICODE_STRING Counted(std::u16string_view text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, bytes, const_cast<PWSTR>(text.data())};
}

}  // namespace machine
