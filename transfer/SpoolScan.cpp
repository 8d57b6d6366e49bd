#include "SpoolScan.h"

#include "SpoolDirectory.h"

#include <QFile>

namespace {

constexpr int namesPerLook = 256; // between two looks at the clock

} // namespace

SpoolScan::SpoolScan(const QString &path, const QByteArray &after, size_t mostBytes)
    : directory(::opendir(QFile::encodeName(path).constData()), ::closedir)
    , names(after, mostBytes)
{
}

bool SpoolScan::goOn(QDeadlineTimer deadline)
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
        if (count % namesPerLook == 0 && deadline.hasExpired())
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
