#include "WholeFile.h"

#include "FileCalls.h"
#include "SpoolLayout.h"

#include <QCoreApplication>
#include <QFile>
#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

QByteArray hiddenBeside(const QString &path)
{
    // Computed once per thread, to save the system call for the process id with each file.
    thread_local const QByteArray name = SpoolLayout::incomingPrefix
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

void removeLeftoversOfTheDead(const QString &path)
{
    const OpenFolder directory = openFolder(QFile::encodeName(path));
    if (!directory)
        return;
    while (const dirent *entry = ::readdir(directory.get())) {
        if (std::string_view(entry->d_name).starts_with(SpoolLayout::incomingPrefix))
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
    const int reason = errno; // the caller may still ask for it
    if (isHidden)
        ::unlink(hidden.constData());
    errno = reason;
}

bool WholeFile::check(bool isDone)
{
    if (!isDone && failure == 0)
        failure = errno != 0 ? errno : EIO;
    if (failure != 0)
        errno = failure;
    return failure == 0;
}

bool WholeFile::write(QByteArrayView bytes)
{
    return check(failure == 0 && writeAll(file.get(), bytes));
}

bool WholeFile::setMode(mode_t mode)
{
    return check(failure == 0 && ::fchmod(file.get(), mode) == 0);
}

bool WholeFile::commit(Flush flush)
{
    if (!check(failure == 0))
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
