#include "GiveBack.h"

#include "FileCalls.h"
#include "FileName.h"
#include "FileTime.h"
#include "SpoolLayout.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

bool isOlder(const struct stat &a, const struct stat &b)
{
    return FileTime::of(a.st_mtim) < FileTime::of(b.st_mtim);
}

// Replaces the older file at `place`. Puts a newer one back that has come there meanwhile.
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
    Descriptor file(::openat(folder, SpoolLayout::halfwayFile,
        O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, newFileMode));
    const timespec time = FileTime::toTimespec(entry.acceptedAt);
    const timespec times[] = {time, time};
    return file.isOpen() && writeAll(file.get(), entry.content)
        && ::futimens(file.get(), times) == 0 && ::close(file.release()) == 0;
}

} // namespace

bool GiveBack::file(
    int folder, const char *from, const SpoolDirectory &spool, const QByteArray &name)
{
    const QByteArray place = spool.encodedPathOf(name);
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (renameWithoutReplacing(folder, from, place.constData()))
            return true;
        if (errno != EEXIST)
            return errno == ENOENT && ::access(spool.encodedPath().constData(), F_OK) == 0;
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

bool GiveBack::record(int folder, const Journal::Entry &entry, const SpoolDirectory &spool)
{
    const QByteArray name = entry.name.toByteArray();
    if (!isPlainName(QFile::decodeName(name)))
        return true;
    if (writeHalfway(folder, entry) && file(folder, SpoolLayout::halfwayFile, spool, name))
        return true;
    const int reason = errno;
    ::unlinkat(folder, SpoolLayout::halfwayFile, 0);
    errno = reason;
    return false;
}
