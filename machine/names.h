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

// A counted string over the characters of `text`, which must outlive it and stay unchanged.
inline UNICODE_STRING Counted(std::u16string_view text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, bytes, const_cast<PWSTR>(text.data())};
}

}  // namespace machine
