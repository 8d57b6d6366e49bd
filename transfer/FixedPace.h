#pragma once

#include <QtGlobal>

// What the ticks of a fixed pace send while nothing is lost and every answer comes within a tick:
// packet 0 and a status request about it, then groups of data packets, each with a status request
// behind it. Each tick sends one packet; only a status request leaves twice in its tick.
namespace FixedPace {

inline constexpr int announcements = 2; // of packet 0 before each status request about it
inline constexpr int groupPackets = 4; // data packets before each further status request

// Returns how many ticks a file with so many data packets takes; packet 0 is not one of them.
[[nodiscard]] constexpr qint64 ticks(qint64 packets)
{
    const qint64 groups = (packets + groupPackets - 1) / groupPackets;
    return announcements + 1 + groups * (groupPackets + 1);
}

} // namespace FixedPace
