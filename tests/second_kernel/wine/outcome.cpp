#include "outcome.h"
#include <atomic>
#include "lines.h"
#include "tests/second_kernel/stage.h"

extern "C" int _snprintf(char* buffer, SIZE_T size, const char* format, ...);

namespace {

constexpr ULONG kTextBytes = 64u << 10;  // further failures are counted only
constexpr ULONG kLineBytes = 400;

const char* gStory;
ULONG gBoot;
std::atomic<const char*> gStep{"start"};
std::atomic<ULONG> gChecks{0};
std::atomic<ULONG> gFailures{0};

KSPIN_LOCK gLock;
char gText[kTextBytes];
ULONG gLength;

constexpr ULONG kLastLines = 30;
char gLines[8u << 10];
ULONG gLineBytes;

void Add(const char* line, ULONG bytes) {
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&gLock);
    if (gLength + bytes <= kTextBytes) {
        RtlCopyMemory(gText + gLength, line, bytes);
        gLength += bytes;
    }
    KeReleaseSpinLock(&gLock, irql);
}

// Into the outcome, and among the driver's lines, where one sees what the driver had said before.
void ReportFailure(const char* what, ULONGLONG got, ULONGLONG expected) {
    char line[kLineBytes];
    const int bytes =
        _snprintf(line, sizeof(line) - 1, "FAILED %s, boot %d, %s: %s: got 0x%I64x, expected 0x%I64x\n", gStory,
                  gBoot + 1, gStep.load(), what, got, expected);
    line[sizeof(line) - 1] = 0;
    Add(line, bytes >= 0 ? static_cast<ULONG>(bytes) : sizeof(line) - 1);
    shim::PrintLine("%s", line);
}

}  // namespace

void shim::BeginOutcome(const char* story, ULONG boot) {
    gStory = story;
    gBoot = boot;
}

shim::Outcome shim::EndOutcome() {
    return {gChecks, gFailures, gText, gLength, gLines, gLineBytes};
}

void stage::Step(const char* what) {
    gStep = what;
    shim::PrintLine("step: %s\n", what);
}

bool stage::Check(bool holds, const char* what, ULONGLONG got, ULONGLONG expected) {
    ++gChecks;
    if (holds) return true;
    if (++gFailures == 1) gLineBytes = shim::CopyLastLines(kLastLines, gLines, sizeof(gLines));
    ReportFailure(what, got, expected);
    return false;
}

bool stage::Failed() {
    return gFailures != 0;
}
