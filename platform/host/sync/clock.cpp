#include "platform/host/sync/clock.h"

#include <ctime>
#include "platform/host/nt/ntrtl.h"

namespace host {
namespace {

constexpr LONGLONG TicksTo1970 = 134'774 * TicksPerDay;
constexpr LONGLONG TicksPerMinute = 60 * TicksPerSecond;

std::atomic<bool> stopped;
std::atomic<LONGLONG> stoppedAt;
std::atomic<LONGLONG> offset;  // added to the real clock while it is followed
std::atomic<LONG> zoneBias;

// The coarse clock ticks every few milliseconds, as the platform's system time does, and is cheap to read.
LONGLONG RealTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return TicksTo1970 + now.tv_sec * TicksPerSecond + now.tv_nsec / 100;
}

// Days from 1601-01-01 to a date of the proleptic Gregorian calendar. Years are counted from March, so that
// the leap day is a year's last.
LONGLONG DaysSince1601(int year, int month, int day) {
    constexpr LONGLONG MarchOfYearZeroTo1601 = 584'694;
    const LONGLONG y = month <= 2 ? year - 1 : year;
    const LONGLONG dayOfYear = (153 * ((month + 9) % 12) + 2) / 5 + day - 1;
    return 365 * y + y / 4 - y / 100 + y / 400 + dayOfYear - MarchOfYearZeroTo1601;
}

}  // namespace

void FollowRealClock() {
    offset.store(0);
    stopped.store(false);
}

void SetSystemTime(LONGLONG time) {
    stoppedAt.store(time);
    stopped.store(true);
}

void AdvanceTime(LONGLONG ticks) {
    (stopped.load() ? stoppedAt : offset).fetch_add(ticks);
}

LONGLONG SystemTime() {
    return stopped.load(std::memory_order_relaxed) ? stoppedAt.load(std::memory_order_relaxed)
                                                   : RealTime() + offset.load(std::memory_order_relaxed);
}

void SetTimeZoneBias(LONG minutes) {
    zoneBias.store(minutes);
}

LONGLONG TimeOf(int year, int month, int day, int hour, int minute, int second) {
    const LONGLONG seconds = (hour * 60LL + minute) * 60 + second;
    return DaysSince1601(year, month, day) * TicksPerDay + seconds * TicksPerSecond;
}

}  // namespace host

using namespace host;

void KeQuerySystemTime(PLARGE_INTEGER time) {
    time->QuadPart = SystemTime();
}

void ExSystemTimeToLocalTime(PLARGE_INTEGER system, PLARGE_INTEGER local) {
    local->QuadPart = system->QuadPart - zoneBias.load() * TicksPerMinute;
}

void RtlTimeToTimeFields(PLARGE_INTEGER time, PTIME_FIELDS fields) {
    const LONGLONG days = time->QuadPart / TicksPerDay;
    const LONGLONG inDay = time->QuadPart % TicksPerDay;
    const LONGLONG seconds = inDay / TicksPerSecond;
    int year = static_cast<int>(1601 + days * 400 / 146'097);
    while (DaysSince1601(year + 1, 1, 1) <= days) ++year;
    while (DaysSince1601(year, 1, 1) > days) --year;
    int month = 12;
    while (DaysSince1601(year, month, 1) > days) --month;
    fields->Year = static_cast<CSHORT>(year);
    fields->Month = static_cast<CSHORT>(month);
    fields->Day = static_cast<CSHORT>(days - DaysSince1601(year, month, 1) + 1);
    fields->Hour = static_cast<CSHORT>(seconds / 3600);
    fields->Minute = static_cast<CSHORT>(seconds / 60 % 60);
    fields->Second = static_cast<CSHORT>(seconds % 60);
    fields->Milliseconds = static_cast<CSHORT>(inDay % TicksPerSecond / 10'000);
    fields->Weekday = static_cast<CSHORT>((days + 1) % 7);  // 1601-01-01 was a Monday
}
