// The host's UTF-8 and the kernel's UTF-16, into each other.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace posix {

// Without loss: half of a surrogate pair, which the kernel's names may hold, becomes three bytes as if it were
// a character of its own.
std::string ToUtf8(std::u16string_view text);

enum class Halves {
    Refused,  // halves of surrogate pairs are no UTF-8, as the standard has it
    Kept,     // what ToUtf8 makes of one is read back
};

// Appends the characters of `bytes` and returns how many bytes were understood: all of them, or those before
// the first that is no UTF-8 in its shortest form.
std::size_t AppendUtf8(std::string_view bytes, Halves halves, std::u16string& text);

// Replaces `text`; false, the text then being of no use, for bytes that are no UTF-8.
bool FromUtf8(std::string_view bytes, std::u16string& text, Halves halves = Halves::Refused);

}  // namespace posix
