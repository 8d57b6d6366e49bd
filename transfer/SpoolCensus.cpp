#include "SpoolCensus.h"

SpoolCensus SpoolCensus::take(const SpoolDirectory &spool, std::stop_token stop)
{
    constexpr qint64 nanosecondsPerSecond = 1'000'000'000;
    SpoolCensus census;
    for (SpoolListing names = spool.list(); !names.isEmpty() && !stop.stop_requested();
         names.removeFirst()) {
        const std::optional<SpoolDirectory::Mark> mark = spool.mark(names.first());
        if (!mark)
            continue;
        ++census.files;
        census.bytes += mark->size;
        const qint64 written = mark->modified / nanosecondsPerSecond;
        census.oldest = census.oldest == 0 ? written : std::min(census.oldest, written);
    }
    return census;
}
