// Formatting of diagnostics. The kernel's own has no counted strings.
#pragma once
#include <cstdarg>
#include "platform/kernel.h"

namespace shim {

// Formats into `buffer`, always ended by a zero; what does not fit is cut. Returns the bytes before the zero.
// The directives are those of PrintLine (lines.h).
ULONG FormatText(char* buffer, ULONG size, const char* format, va_list arguments);

}  // namespace shim
