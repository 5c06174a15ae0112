// The tool speaks UTF-8 with its user and UTF-16 with the driver.
#pragma once
#include <string>
#include <string_view>
#include "posix/utf.h"

namespace ctl {

using posix::ToUtf8;
// The reverse, halves of surrogate pairs kept. Throws Failure for bytes that are no UTF-8; `what` names the
// text in it.
std::u16string FromUtf8(std::string_view bytes, const std::string& what);

// The ASCII letters in lower case; other characters stay.
char16_t FoldCase(char16_t character);
bool EqualIgnoringCase(std::u16string_view a, std::u16string_view b);

}  // namespace ctl
