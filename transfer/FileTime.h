#pragma once

#include <QtGlobal>

#include <chrono>
#include <ctime>

// The times of files, as nanoseconds since the epoch.
namespace FileTime {

inline constexpr qint64 perSecond = 1'000'000'000;

[[nodiscard]] inline qint64 of(const timespec &time)
{
    return qint64(time.tv_sec) * perSecond + time.tv_nsec;
}

[[nodiscard]] inline timespec toTimespec(qint64 time)
{
    return {time / perSecond, time % perSecond};
}

[[nodiscard]] inline qint64 ofClock(clockid_t clock)
{
    timespec time;
    ::clock_gettime(clock, &time);
    return of(time);
}

// Returns the time that a file changed now would get. File systems use this coarse clock.
[[nodiscard]] inline qint64 now()
{
    return ofClock(CLOCK_REALTIME_COARSE);
}

// Returns how long ago something happened at that time; negative if it lies in the future.
[[nodiscard]] inline std::chrono::nanoseconds age(qint64 time)
{
    return std::chrono::nanoseconds(ofClock(CLOCK_REALTIME) - time);
}

// Returns whether a change made now would give the file another time. File systems store times in
// steps of up to two seconds.
[[nodiscard]] inline bool isSettled(qint64 time)
{
    return std::chrono::abs(age(time)) > std::chrono::seconds(3);
}

} // namespace FileTime
