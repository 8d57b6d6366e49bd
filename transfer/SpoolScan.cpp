#include "SpoolScan.h"

#include "FileName.h"
#include "SpoolDirectory.h"

namespace {

constexpr int namesPerClockCheck = 256;

} // namespace

SpoolScan::SpoolScan(const SpoolDirectory &spool, const QByteArray &after, size_t mostBytes)
    : directory(openFolder(spool.encodedPath()))
    , names(after, mostBytes)
{
}

bool SpoolScan::readUntil(QDeadlineTimer deadline)
{
    if (!directory)
        return true;
    for (int count = 1;; ++count) {
        const dirent *entry = ::readdir(directory.get());
        if (!entry)
            break;
        if (isForeignName(entry->d_name))
            sawForeign = true;
        else if (entry->d_name[0] != '.' && isRegularFile(::dirfd(directory.get()), *entry))
            names.add(entry->d_name);
        if (count % namesPerClockCheck == 0 && deadline.hasExpired())
            return false;
    }
    names.sort();
    return true;
}

SpoolListing SpoolScan::takeNames()
{
    directory.reset();
    return std::move(names);
}
