#include "GiveBack.h"

#include "WholeFile.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char halfway[] = ".record"; // the name of a record that is being written
constexpr mode_t newFileMode = 0666; // less the umask

bool isOlder(const struct stat &a, const struct stat &b)
{
    return a.st_mtim.tv_sec != b.st_mtim.tv_sec ? a.st_mtim.tv_sec < b.st_mtim.tv_sec
                                                : a.st_mtim.tv_nsec < b.st_mtim.tv_nsec;
}

// Gives the file its place unless something has it: then false, with EEXIST.
bool moveToFreePlace(int folder, const char *from, const char *place)
{
    if (::renameat2(folder, from, AT_FDCWD, place, RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL) // of an old network file system
        return false;
    return ::linkat(folder, from, AT_FDCWD, place, 0) == 0 && ::unlinkat(folder, from, 0) == 0;
}

// Takes the place of an older file. A newer one that has come there meanwhile gets it back.
bool replaceOlder(int folder, const char *from, const char *place, const struct stat &own)
{
    if (::renameat2(folder, from, AT_FDCWD, place, RENAME_EXCHANGE) != 0)
        return errno == EINVAL && ::renameat(folder, from, AT_FDCWD, place) == 0;
    struct stat replaced;
    if (::fstatat(folder, from, &replaced, AT_SYMLINK_NOFOLLOW) == 0 && isOlder(own, replaced)
        && ::renameat2(folder, from, AT_FDCWD, place, RENAME_EXCHANGE) != 0)
        return false;
    return ::unlinkat(folder, from, 0) == 0;
}

bool writeHalfway(int folder, const Journal::Entry &entry)
{
    Descriptor file(::openat(
        folder, halfway, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, newFileMode));
    if (!file.isOpen())
        return false;
    for (QByteArrayView rest = entry.content; !rest.isEmpty();) {
        const ssize_t count = ::write(file.get(), rest.data(), size_t(rest.size()));
        if (count > 0)
            rest = rest.sliced(count);
        else if (count == 0 || errno != EINTR)
            return false;
    }
    const timespec time = {entry.acceptedAt / 1'000'000'000, entry.acceptedAt % 1'000'000'000};
    const timespec times[] = {time, time};
    return ::futimens(file.get(), times) == 0 && ::close(file.release()) == 0;
}

} // namespace

bool GiveBack::file(int folder, const char *from, const QByteArray &spool, const QByteArray &name)
{
    const QByteArray place = spool + '/' + name;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (moveToFreePlace(folder, from, place.constData()))
            return true;
        if (errno != EEXIST)
            return errno == ENOENT && ::access(spool.constData(), F_OK) == 0;
        struct stat own, other;
        if (::fstatat(folder, from, &own, AT_SYMLINK_NOFOLLOW) != 0)
            return errno == ENOENT;
        if (::lstat(place.constData(), &other) != 0)
            continue;
        if (S_ISDIR(other.st_mode))
            return false;
        return isOlder(other, own) ? replaceOlder(folder, from, place.constData(), own)
                                   : ::unlinkat(folder, from, 0) == 0;
    }
    return false;
}

bool GiveBack::record(int folder, const Journal::Entry &entry, const QByteArray &spool)
{
    const QByteArray name = entry.name.toByteArray();
    if (!isPlainName(QFile::decodeName(name)))
        return true;
    if (writeHalfway(folder, entry) && file(folder, halfway, spool, name))
        return true;
    const int reason = errno;
    ::unlinkat(folder, halfway, 0);
    errno = reason;
    return false;
}
