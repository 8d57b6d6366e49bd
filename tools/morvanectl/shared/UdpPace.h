#pragma once

#include <QString>

#include <chrono>
#include <optional>

// How long a file travels over an undisturbed UDP link; see FixedPace.
namespace UdpPace {

// Returns the number of data packets of a file, from its compressed size.
[[nodiscard]] qint64 packets(qint64 compressedBytes);

// Returns nullopt at a timeout of 0, which sends as fast as the link carries.
[[nodiscard]] std::optional<std::chrono::milliseconds> duration(qint64 packets, quint16 timeout);

// "950 ms", "12 s", "3 min 5 s", "1 h 23 min", "2 days 3 h"
[[nodiscard]] QString text(std::chrono::milliseconds duration);

} // namespace UdpPace
