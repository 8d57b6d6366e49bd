#include "FileCalls.h"

#include "Descriptor.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

bool isRegularFile(int directory, const dirent &entry)
{
    if (entry.d_type == DT_REG)
        return true;
    if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN)
        return false;
    struct stat target;
    return ::fstatat(directory, entry.d_name, &target, 0) == 0 && S_ISREG(target.st_mode);
}

int openRegularFile(const QString &path, struct stat &info)
{
    if (path.contains(QChar(u'\0'))) { // the system would take what is in front of it
        errno = ENOENT;
        return -1;
    }
    // Without O_NONBLOCK a FIFO that has taken a file's place would block for ever.
    Descriptor file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen() || ::fstat(file.get(), &info) != 0)
        return -1;
    if (!S_ISREG(info.st_mode)) {
        errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    return file.release();
}

OpenFolder openFolder(const QByteArray &path)
{
    return {::opendir(path.constData()), ::closedir};
}

bool writeAll(int file, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t count = ::write(file, bytes.data(), size_t(bytes.size()));
        if (count == 0)
            errno = EIO;
        if (count == 0 || (count < 0 && errno != EINTR))
            return false;
        bytes = bytes.sliced(std::max<ssize_t>(count, 0));
    }
    return true;
}

bool renameWithoutReplacing(int folder, const char *from, const char *to)
{
    if (::renameat2(folder, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // Some file systems do not support the flag, but do support hard links.
    return ::linkat(folder, from, AT_FDCWD, to, 0) == 0 && ::unlinkat(folder, from, 0) == 0;
}

bool renameWithoutReplacing(const QByteArray &from, const QByteArray &to)
{
    return renameWithoutReplacing(AT_FDCWD, from.constData(), to.constData());
}
