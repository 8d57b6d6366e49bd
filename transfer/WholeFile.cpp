#include "WholeFile.h"

#include <QCoreApplication>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr mode_t newFileMode = 0666; // less the umask

QByteArray hiddenBeside(const QString &path)
{
    // The number is asked for once: it would be a system call for every file.
    static const QByteArray name =
        incomingPrefix + QByteArray::number(QCoreApplication::applicationPid());
    return QFile::encodeName(path.left(path.lastIndexOf(u'/') + 1)) + name;
}

} // namespace

bool isPlainName(const QString &name)
{
    return !name.isEmpty() && !name.startsWith(u'.') && !name.contains(u'/')
        && !name.contains(QChar(u'\0')) && QFile::decodeName(QFile::encodeName(name)) == name;
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

WholeFile::WholeFile(const QString &filePath)
    : path(QFile::encodeName(filePath))
    , hidden(hiddenBeside(filePath))
    , file(::open(
          hidden.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, newFileMode))
    , failed(!file.isOpen())
{
}

WholeFile::~WholeFile()
{
    if (file.isOpen())
        ::unlink(hidden.constData());
}

bool WholeFile::write(QByteArrayView bytes)
{
    while (!failed && !bytes.isEmpty()) {
        const ssize_t count = ::write(file.get(), bytes.data(), size_t(bytes.size()));
        if (count > 0)
            bytes = bytes.sliced(count);
        else
            failed = count == 0 || errno != EINTR;
    }
    return !failed;
}

bool WholeFile::commit()
{
    if (failed)
        return false;
    // Some file systems tell only here that the bytes did not fit.
    failed = ::close(file.release()) != 0 || std::rename(hidden.constData(), path.constData()) != 0;
    if (failed)
        ::unlink(hidden.constData());
    return !failed;
}
