#include "QuietSpool.h"

#include "FileCalls.h"
#include "FileName.h"
#include "FileTime.h"
#include "SpoolDirectory.h"
#include "SpoolLayout.h"

#include <climits>
#include <unistd.h>

namespace {

bool isUnchanged(const struct stat &a, const struct stat &b)
{
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev
        && FileTime::of(a.st_mtim) == FileTime::of(b.st_mtim)
        && FileTime::of(a.st_ctim) == FileTime::of(b.st_ctim);
}

} // namespace

QuietSpool::QuietSpool(const SpoolDirectory &spool)
    : path(spool.encodedPath())
{
}

bool QuietSpool::isQuiet()
{
    struct stat now;
    if (::access(path.constData(), W_OK | X_OK) != 0 || ::stat(path.constData(), &now) != 0)
        return false;
    if (isSettled && isUnchanged(now, quietState))
        return true;
    isSettled = false;
    if (!holdsNoFile())
        return false;
    isSettled = FileTime::isSettled(std::max(FileTime::of(now.st_mtim), FileTime::of(now.st_ctim)));
    quietState = now;
    return true;
}

bool QuietSpool::holdsNoFile()
{
    namesOfOthers.clear();
    const OpenFolder directory = openFolder(path);
    if (!directory)
        return false;
    while (const dirent *entry = ::readdir(directory.get())) {
        const QByteArray name =
            QByteArray::fromRawData(entry->d_name, qsizetype(qstrlen(entry->d_name)));
        if (name == SpoolLayout::lockFile)
            return false;
        if (name.startsWith('.'))
            continue;
        if (isRegularFile(::dirfd(directory.get()), *entry))
            return false;
        namesOfOthers.insert(QByteArray(entry->d_name));
    }
    return true;
}

bool QuietSpool::canHold(const QByteArray &name) const
{
    return name.size() <= longestFileName && path.size() + 1 + name.size() < PATH_MAX
        && (namesOfOthers.isEmpty() || !namesOfOthers.contains(name));
}
