// The machine's clock and time zone, behind KeQuerySystemTime and ExSystemTimeToLocalTime.
// Times are counts of 100 ns since 1601-01-01 00:00 UTC.
#pragma once
#include "platform/host/nt/ntke.h"

namespace host {

inline constexpr LONGLONG kTicksPerSecond = 10'000'000;
inline constexpr LONGLONG kTicksPerDay = 86'400 * kTicksPerSecond;

// The real clock, with the granularity of a timer tick. The state at start.
void FollowRealClock();
// Stops the clock at `time`; only SetSystemTime and AdvanceTime move it then.
void SetSystemTime(LONGLONG time);
// Moves the clock, stopped or following. `ticks` may be negative.
void AdvanceTime(LONGLONG ticks);
LONGLONG SystemTime();

// Timed waits, and the machine's pauses between two attempts, take this part of their time, for tests that meet
// many of them. 1 at start.
void ShortenWaits(LONGLONG divisor);
LONGLONG WaitDivisor();

// Minutes to add to local time to get UTC (-60 for one hour east of Greenwich). 0 at start.
void SetTimeZoneBias(LONG minutes);

// The time of a date and time of day in UTC. Month and day count from 1.
LONGLONG TimeOf(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

}  // namespace host
