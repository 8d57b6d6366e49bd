#include "SpoolCensus.h"

#include "FileTime.h"

SpoolCensus SpoolCensus::take(const SpoolDirectory &spool, std::stop_token stop)
{
    SpoolCensus census;
    for (SpoolListing names = spool.list(); !names.isEmpty() && !stop.stop_requested();
         names.removeFirst()) {
        const std::optional<SpoolDirectory::Mark> mark = spool.mark(names.first());
        if (!mark)
            continue;
        ++census.files;
        census.bytes += mark->size;
        const qint64 written = mark->modified / FileTime::perSecond;
        census.oldest = census.oldest == 0 ? written : std::min(census.oldest, written);
    }
    return census;
}
