#include "WholeFile.h"

#include <QCoreApplication>
#include <QFile>
#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

constexpr mode_t newFileMode = 0666; // less the umask

QByteArray hiddenBeside(const QString &path)
{
    // Made once a thread: the process id would be a system call for every file.
    thread_local const QByteArray name = incomingPrefix
        + QByteArray::number(QCoreApplication::applicationPid()) + '-'
        + QByteArray::number(QRandomGenerator::system()->generate64(), 16);
    return QFile::encodeName(path.left(path.lastIndexOf(u'/') + 1)) + name;
}

// Creates a file and takes the kernel's lock on it. Tries again if somebody who removes leftovers
// has removed the file before it was locked.
int createLocked(const QByteArray &path)
{
    for (;;) {
        Descriptor file(::open(
            path.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, newFileMode));
        struct stat info;
        if (!file.isOpen())
            return -1;
        // Fails on file systems without locks, where removeUnlocked() fails too.
        std::ignore = ::flock(file.get(), LOCK_EX | LOCK_NB);
        if (::fstat(file.get(), &info) != 0 || info.st_nlink > 0)
            return file.release();
    }
}

// Flushes the names in a folder. If that fails, a power cut may bring back the old file.
void flushFolder(const QByteArray &path)
{
    const Descriptor folder(
        ::open(path.isEmpty() ? "." : path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::ignore = ::fsync(folder.get());
}

void removeUnlocked(int directory, const char *name)
{
    const Descriptor file(
        ::openat(directory, name, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (file.isOpen() && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        ::unlinkat(directory, name, 0);
}

} // namespace

bool isPlainName(const QString &name)
{
    if (name.isEmpty() || name.startsWith(u'.'))
        return false;
    const auto isCommon = [](QChar c) { return c > u'\0' && c < u'\x80' && c != u'/'; };
    return std::all_of(name.begin(), name.end(), isCommon)
        || (!name.contains(u'/') && !name.contains(QChar(u'\0'))
            && QFile::decodeName(QFile::encodeName(name)) == name);
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

void removeLeftoversOfTheDead(const QString &path)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(
        ::opendir(QFile::encodeName(path).constData()), ::closedir);
    if (!directory)
        return;
    while (const dirent *entry = ::readdir(directory.get())) {
        if (std::strncmp(entry->d_name, incomingPrefix, std::strlen(incomingPrefix)) == 0)
            removeUnlocked(::dirfd(directory.get()), entry->d_name);
    }
}

WholeFile::WholeFile(const QString &filePath)
    : path(QFile::encodeName(filePath))
    , hidden(hiddenBeside(filePath))
    , file(createLocked(hidden))
    , isHidden(file.isOpen())
{
    check(isHidden);
}

WholeFile::~WholeFile()
{
    if (isHidden)
        ::unlink(hidden.constData());
}

bool WholeFile::check(bool isDone)
{
    if (!isDone && failure == 0)
        failure = errno != 0 ? errno : EIO;
    return failure == 0;
}

bool WholeFile::write(QByteArrayView bytes)
{
    while (failure == 0 && !bytes.isEmpty()) {
        const ssize_t count = ::write(file.get(), bytes.data(), size_t(bytes.size()));
        if (count > 0)
            bytes = bytes.sliced(count);
        else
            check(count < 0 && errno == EINTR);
    }
    return failure == 0;
}

bool WholeFile::setMode(mode_t mode)
{
    return check(::fchmod(file.get(), mode) == 0);
}

bool WholeFile::commit(Flush flush)
{
    if (failure != 0)
        return false;
    // Some file systems report a full disk only when a file is flushed or closed. A flushed file
    // stays open, and so locked until it has its name.
    const bool isStored =
        flush == Flush::Yes ? ::fdatasync(file.get()) == 0 : ::close(file.release()) == 0;
    if (!check(isStored && std::rename(hidden.constData(), path.constData()) == 0))
        return false;
    isHidden = false;
    if (flush == Flush::Yes)
        flushFolder(path.left(path.lastIndexOf('/') + 1));
    return true;
}
