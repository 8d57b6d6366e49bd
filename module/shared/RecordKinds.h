#pragma once

#include <QByteArray>

#include <algorithm>
#include <array>

// The kinds of data records that the module carries. It drops all others.
inline constexpr std::array acceptedKinds = {"tempdb", "error", "tempdb_t"};

[[nodiscard]] inline bool isAcceptedKind(const QByteArray &kind)
{
    return std::find(acceptedKinds.begin(), acceptedKinds.end(), kind) != acceptedKinds.end();
}
