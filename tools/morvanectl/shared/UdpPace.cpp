#include "UdpPace.h"

#include "FixedPace.h"
#include "Output.h"
#include "Packet.h"

using namespace Qt::StringLiterals;

qint64 UdpPace::packets(qint64 compressedBytes)
{
    return (compressedBytes + Packet::maxPayload - 1) / Packet::maxPayload;
}

std::optional<std::chrono::milliseconds> UdpPace::duration(qint64 packets, quint16 timeout)
{
    if (timeout == 0)
        return std::nullopt;
    return std::chrono::milliseconds(FixedPace::ticks(packets) * timeout);
}

QString UdpPace::text(std::chrono::milliseconds duration)
{
    const qint64 seconds = duration.count() / 1'000;
    if (seconds == 0)
        return u"%1 ms"_s.arg(duration.count());
    if (seconds < 60)
        return u"%1 s"_s.arg(seconds);
    if (seconds < 3'600)
        return u"%1 min %2 s"_s.arg(seconds / 60).arg(seconds % 60);
    if (seconds < 86'400)
        return u"%1 h %2 min"_s.arg(seconds / 3'600).arg(seconds / 60 % 60);
    return u"%1 %2 h"_s.arg(counted(seconds / 86'400, u"day"_s)).arg(seconds / 3'600 % 24);
}
