#pragma once

#include "SpoolDirectory.h"

// How much waits in a spool, at one moment.
struct SpoolCensus
{
    // Looks at every file: about a second for 300,000 of them. Files that go meanwhile do not
    // count.
    [[nodiscard]] static SpoolCensus take(const SpoolDirectory &spool);

    bool operator==(const SpoolCensus &) const = default;

    qint64 files = 0;
    qint64 bytes = 0;
    qint64 oldest = 0; // when the file that waits longest was written, seconds since the epoch; 0
                       // if none waits
};
