// Formatting as the kernel's diagnostics do it, which is not the C library's way: %ld is 32 bits wide, %I64d
// is 64, %p prints 16 upper-case digits, %wZ takes a counted string, %S a string of 16-bit characters.
#pragma once
#include <cstdarg>
#include "platform/host/nt/ntdef.h"

namespace host {

// Formats into `buffer` (UTF-8, always ended by a zero; `size` > 0) and returns the bytes before the zero.
// What does not fit is cut, never inside a character. Null pointers print as "(null)".
//
//   %[flags][width][.precision][h|l|ll|w|I32|I64|I]type   flags - + space # 0; * for width or precision
//   d i u x X o    16 (h), 32 (none, l, I32) or 64 bits (ll, I64, I)
//   c              a character; 16 bits with l or w
//   C              a 16-bit character; 8 bits with h
//   s              a string; of 16-bit characters with l or w
//   S              a string of 16-bit characters; of 8-bit ones with h
//   Z              a counted string of 8-bit characters; UNICODE_STRING with w or l
//   p              a pointer
SIZE_T FormatV(char* buffer, SIZE_T size, const char* format, va_list arguments);
SIZE_T Format(char* buffer, SIZE_T size, const char* format, ...);

}  // namespace host
