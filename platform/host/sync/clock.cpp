#include "platform/host/sync/clock.h"

#include <ctime>
#include "platform/host/nt/ntrtl.h"

namespace host {
namespace {

constexpr LONGLONG kTicksTo1970 = 134'774 * kTicksPerDay;
constexpr LONGLONG kTicksPerMinute = 60 * kTicksPerSecond;

std::atomic<bool> gStopped;
std::atomic<LONGLONG> gStoppedAt;
std::atomic<LONGLONG> gOffset;  // added to the real clock while it is followed
std::atomic<LONGLONG> gWaitDivisor{1};
std::atomic<LONG> gZoneBias;

// The coarse clock ticks every few milliseconds, as the platform's system time does, and is cheap to read.
LONGLONG RealTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return kTicksTo1970 + now.tv_sec * kTicksPerSecond + now.tv_nsec / 100;
}

// Days from 1601-01-01 to a date of the proleptic Gregorian calendar. Years are counted from March, so that
// the leap day is a year's last.
LONGLONG DaysSince1601(int year, int month, int day) {
    constexpr LONGLONG kMarchOfYearZeroTo1601 = 584'694;
    const LONGLONG y = month <= 2 ? year - 1 : year;
    const LONGLONG dayOfYear = (153 * ((month + 9) % 12) + 2) / 5 + day - 1;
    return 365 * y + y / 4 - y / 100 + y / 400 + dayOfYear - kMarchOfYearZeroTo1601;
}

}  // namespace

void FollowRealClock() {
    gOffset.store(0);
    gStopped.store(false);
}

void SetSystemTime(LONGLONG time) {
    gStoppedAt.store(time);
    gStopped.store(true);
}

void AdvanceTime(LONGLONG ticks) {
    (gStopped.load() ? gStoppedAt : gOffset).fetch_add(ticks);
}

LONGLONG SystemTime() {
    return gStopped.load(std::memory_order_relaxed) ? gStoppedAt.load(std::memory_order_relaxed)
                                                    : RealTime() + gOffset.load(std::memory_order_relaxed);
}

void ShortenWaits(LONGLONG divisor) {
    gWaitDivisor.store(divisor);
}

LONGLONG WaitDivisor() {
    return gWaitDivisor.load(std::memory_order_relaxed);
}

void SetTimeZoneBias(LONG minutes) {
    gZoneBias.store(minutes);
}

LONGLONG TimeOf(int year, int month, int day, int hour, int minute, int second) {
    const LONGLONG seconds = (hour * 60LL + minute) * 60 + second;
    return DaysSince1601(year, month, day) * kTicksPerDay + seconds * kTicksPerSecond;
}

}  // namespace host

using namespace host;

void KeQuerySystemTime(PLARGE_INTEGER time) {
    time->QuadPart = SystemTime();
}

void ExSystemTimeToLocalTime(PLARGE_INTEGER system, PLARGE_INTEGER local) {
    local->QuadPart = system->QuadPart - gZoneBias.load() * kTicksPerMinute;
}

void RtlTimeToTimeFields(PLARGE_INTEGER time, PTIME_FIELDS fields) {
    const LONGLONG days = time->QuadPart / kTicksPerDay;
    const LONGLONG inDay = time->QuadPart % kTicksPerDay;
    const LONGLONG seconds = inDay / kTicksPerSecond;
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
    fields->Milliseconds = static_cast<CSHORT>(inDay % kTicksPerSecond / 10'000);
    fields->Weekday = static_cast<CSHORT>((days + 1) % 7);  // 1601-01-01 was a Monday
}
