// Formatting into a counted string, the same on every kernel.
#pragma once
#include "platform/kernel.h"

// Formats into `to`'s buffer, bounded by its maximum length and by 32767 characters, and sets its length.
// Directives: %d %u %x %X with zero flag and width, %c, %ws, %wZ (UNICODE_STRING pointer), %%.
// STATUS_BUFFER_OVERFLOW when the result was cut; STATUS_INVALID_PARAMETER when `to` or the format is not
// valid.
[[nodiscard]] NTSTATUS FormatString(PUNICODE_STRING to, PCWSTR format, ...);
