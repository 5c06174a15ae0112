// What was printed in this boot, in whole lines.
#pragma once
#include "platform/kernel.h"

namespace shim {

// Formats like DbgPrint, keeps the text, and hands it to Wine's debugger output, where it outlives a crash.
//   %[flags][width][I64]type with d u x X; s for a string, wZ for a counted string of 16-bit characters, p
void PrintLine(const char* format, ...);

// Copies the last `count` lines, those that fit; returns their bytes.
ULONG CopyLastLines(ULONG count, char* to, ULONG room);

}  // namespace shim
