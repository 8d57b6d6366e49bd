#include "SpoolFile.h"

#include "FileCalls.h"
#include "FileTime.h"
#include "LinkRecord.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

bool SpoolFile::Mark::operator==(const Mark &other) const
{
    return modified == other.modified && size == other.size
        && (inode == other.inode || (isSettled && other.isSettled));
}

SpoolFile::SpoolFile(const QString &path)
    : file([&] {
        struct stat info;
        Descriptor opened(openRegularFile(path, info));
        if (!opened.isOpen() || info.st_size > LinkRecord::maxBodySize)
            return -1;
        fileMark = markOf(info);
        return opened.release();
    }())
{
}

SpoolFile::Mark SpoolFile::markOf(const struct stat &info)
{
    const qint64 modified = FileTime::of(info.st_mtim);
    return {info.st_ino, modified, info.st_size, FileTime::isSettled(modified)};
}

std::optional<QByteArray> SpoolFile::read(qsizetype headerBytes) const
{
    if (!isOpen())
        return std::nullopt;
    QByteArray content(headerBytes + fileMark.size, Qt::Uninitialized);
    qsizetype filled = headerBytes;
    while (filled < content.size()) {
        const ssize_t count =
            ::read(file.get(), content.data() + filled, size_t(content.size() - filled));
        if (count < 0 && errno != EINTR)
            return std::nullopt;
        if (count == 0)
            break; // the file was truncated meanwhile
        filled += std::max<ssize_t>(count, 0);
    }
    content.truncate(filled);
    return content;
}
