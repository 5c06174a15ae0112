#include "lines.h"
#include "format.h"
#include "shim.h"
#include "tests/second_kernel/stage.h"

namespace shim {
namespace {

constexpr ULONG kLineBytes = 512;
constexpr ULONG kTextBytes = 4u << 20;  // a boot prints some hundred kilobytes

decltype(&DbgPrint) gKernelPrint;

KSPIN_LOCK gLock;
char gText[kTextBytes];
ULONG gLength;

// When the room is used up, the older half makes place.
void Keep(const char* line, ULONG bytes) {
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&gLock);
    if (gLength + bytes > kTextBytes) {
        RtlMoveMemory(gText, gText + kTextBytes / 2, gLength - kTextBytes / 2);
        gLength -= kTextBytes / 2;
    }
    RtlCopyMemory(gText + gLength, line, bytes);
    gLength += bytes;
    KeReleaseSpinLock(&gLock, irql);
}

void Print(const char* format, va_list arguments, bool keep) {
    char line[kLineBytes];
    const ULONG bytes = FormatText(line, sizeof(line), format, arguments);
    if (keep) Keep(line, bytes);
    (void)gKernelPrint("%s", line);
}

ULONG DebugPrint(PCSTR format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Print(format, arguments, IsDriverCode(SHIM_CALLER));
    va_end(arguments);
    return STATUS_SUCCESS;
}

// Printed among the lines that the driver printed.
void NTAPI Assert(PVOID condition, PVOID file, ULONG line, PCHAR) {
    PrintLine("Assertion failed: %s, file %s, line %d\n", condition, file, line);
}

bool Contains(const char* line, const char* end, const char* part) {
    for (; line < end; ++line) {
        ULONG same = 0;
        while (part[same] != 0 && line + same < end && line[same] == part[same]) ++same;
        if (part[same] == 0) return true;
    }
    return false;
}

const char* EndOfLine(const char* at) {
    const char* end = gText + gLength;
    while (at < end && *at != '\n') ++at;
    return at;
}

const Replacement kReplacements[] = {
    {"DbgPrint", reinterpret_cast<PVOID>(DebugPrint), reinterpret_cast<PVOID*>(&gKernelPrint)},
    {"RtlAssert", reinterpret_cast<PVOID>(Assert), nullptr},
};

}  // namespace

Replacements DebugReplacements() {
    return {kReplacements, RTL_NUMBER_OF(kReplacements)};
}

void PrintLine(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Print(format, arguments, true);
    va_end(arguments);
}

ULONG CopyLastLines(ULONG count, char* to, ULONG room) {
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&gLock);
    ULONG start = gLength;
    while (start > 0 && gLength - start < room && (gText[start - 1] != '\n' || start == gLength || --count > 0))
        --start;
    const ULONG bytes = gLength - start;
    RtlCopyMemory(to, gText + start, bytes);
    KeReleaseSpinLock(&gLock, irql);
    return bytes;
}

}  // namespace shim

ULONG stage::TimesSaid(const char* part) {
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&shim::gLock);
    ULONG times = 0;
    for (const char* line = shim::gText; line < shim::gText + shim::gLength;) {
        const char* end = shim::EndOfLine(line);
        if (shim::Contains(line, end, part)) ++times;
        line = end + 1;
    }
    KeReleaseSpinLock(&shim::gLock, irql);
    return times;
}
