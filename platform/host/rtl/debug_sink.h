// Where DbgPrint goes: a ring of the most recent lines, and a follower if one is installed.
#pragma once
#include <string>
#include <vector>
#include "platform/host/nt/ntrtl.h"

namespace host {

inline constexpr SIZE_T kDebugLineLimit = 512;  // bytes of one print, the rest is cut as on the platform
inline constexpr SIZE_T kDebugRingLines = 4096;

// Called for each line, in order and one at a time, without its final newline. It must not print itself.
using DebugFollower = void (*)(void* context, const char* line);
void FollowDebug(DebugFollower follower, void* context);  // null: nobody follows
// With capture off and nobody following, a print costs one load. On at start.
void SetDebugCapture(bool on);

// The number of lines so far; lines printed from now on come after it.
ULONGLONG DebugMark();
// The lines since `mark` that the ring still has, oldest first, UTF-8, without their final newlines.
std::vector<std::string> DebugLinesSince(ULONGLONG mark);
// True when a line since `mark` contains `part`.
bool DebugSaid(ULONGLONG mark, const char* part);

// Adds a line of the host's own.
void PutDebugLine(const char* text);
// Writes the last `lines` lines to stderr.
void DumpDebugLines(SIZE_T lines);

}  // namespace host
