#pragma once

#include "SpoolDirectory.h"

#include <stop_token>

// How much waits in a spool, at one moment.
struct SpoolCensus
{
    // Looks at every file, until it is asked to stop. Files that go meanwhile do not count.
    [[nodiscard]] static SpoolCensus take(const SpoolDirectory &spool, std::stop_token stop);

    bool operator==(const SpoolCensus &) const = default;

    qint64 files = 0;
    qint64 bytes = 0;
    // When the file that waits longest was written, seconds since the epoch; 0 if none waits.
    qint64 oldest = 0;
};
