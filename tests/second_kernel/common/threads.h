// System threads of a story. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/kernel.h"

// One thread; null when it could not be made. JoinThread waits for its end and lets it go.
[[nodiscard]] PVOID StartThread(PKSTART_ROUTINE routine, PVOID context);
void JoinThread(PVOID thread);

inline constexpr ULONG kMostThreads = 8;
// Runs `routine(context, i)` on `count` threads at once, for i from 0, and waits for all.
void RunTogether(ULONG count, void (*routine)(PVOID context, ULONG index), PVOID context);

void Sleep(ULONG milliseconds);
