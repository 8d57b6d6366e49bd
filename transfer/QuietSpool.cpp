#include "QuietSpool.h"

#include "SpoolDirectory.h"

#include <QFile>

#include <climits>
#include <ctime>
#include <dirent.h>
#include <memory>
#include <unistd.h>

namespace {

// The coarsest step of a file system's times: two changes within it leave the same time.
constexpr time_t coarsestStep = 2; // seconds

bool isSame(const timespec &a, const timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool isUnchanged(const struct stat &a, const struct stat &b)
{
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev && isSame(a.st_mtim, b.st_mtim)
        && isSame(a.st_ctim, b.st_ctim);
}

} // namespace

QuietSpool::QuietSpool(const QString &directory)
    : path(QFile::encodeName(directory))
{
}

bool QuietSpool::look()
{
    struct stat now;
    if (::access(path.constData(), W_OK | X_OK) != 0 || ::stat(path.constData(), &now) != 0)
        return false;
    if (isSettled && isUnchanged(now, quietAs))
        return true;
    isSettled = false;
    if (!read())
        return false;
    timespec time;
    ::clock_gettime(CLOCK_REALTIME, &time);
    const time_t latest = std::max(now.st_mtim.tv_sec, now.st_ctim.tv_sec);
    isSettled = time.tv_sec > latest + coarsestStep;
    quietAs = now;
    return true;
}

bool QuietSpool::read()
{
    otherNames.clear();
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(::opendir(path.constData()), ::closedir);
    if (!directory)
        return false;
    while (const dirent *entry = ::readdir(directory.get())) {
        const QByteArray name =
            QByteArray::fromRawData(entry->d_name, qsizetype(qstrlen(entry->d_name)));
        if (name == SpoolLock::fileName)
            return false;
        if (name.startsWith('.'))
            continue;
        if (isRegularFile(::dirfd(directory.get()), *entry))
            return false;
        otherNames.insert(QByteArray(entry->d_name));
    }
    return true;
}

bool QuietSpool::canHold(const QByteArray &name) const
{
    return name.size() <= NAME_MAX && path.size() + 1 + name.size() < PATH_MAX
        && (otherNames.isEmpty() || !otherNames.contains(name));
}
