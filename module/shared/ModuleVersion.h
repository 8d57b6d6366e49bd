#pragma once

#include <QString>

// Returns the version that the program and its tool show.
[[nodiscard]] inline QString moduleVersion()
{
    return QStringLiteral(MORVANE_VERSION ":eb0bac411f09");
}
