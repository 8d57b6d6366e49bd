#include "NumberedFiles.h"

#include "Descriptor.h"
#include "FileCalls.h"
#include "NameTemplate.h"
#include "SpoolLayout.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

bool NumberedFiles::open(const QString &path, const QString &templateText, Existing existing)
{
    directory = QDir(path);
    nameTemplate = templateText;
    existingFiles = existing;
    if (!directory.mkpath(u"."_s))
        return false;
    const QMap<qint64, QString> there = behind(0);
    if (existingFiles == Existing::Keep && !there.isEmpty())
        startBehind(there.lastKey());
    return true;
}

QMap<qint64, QString> NumberedFiles::behind(qint64 number) const
{
    QMap<qint64, QString> found;
    const QRegularExpression isOurs = namesFrom(nameTemplate);
    const QStringList there =
        QDir(directory.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::System);
    for (const QString &entry : there) {
        const qint64 numberOfEntry = isOurs.match(entry).captured(1).toLongLong();
        if (numberOfEntry > number)
            found.insert(numberOfEntry, entry);
    }
    return found;
}

// A crash leaves an incomplete file under its hidden name only.
std::optional<qint64> NumberedFiles::add(const QByteArray &content)
{
    const QString hidden = QString::fromLatin1(SpoolLayout::incomingPrefix)
        + QString::number(QCoreApplication::applicationPid());
    QFile::remove(directory.absoluteFilePath(hidden));
    return write(hidden, content) ? giveName(hidden) : std::nullopt;
}

bool NumberedFiles::write(const QString &hidden, const QByteArray &content) const
{
    const QByteArray path = QFile::encodeName(directory.absoluteFilePath(hidden));
    Descriptor file(::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, newFileMode));
    if (file.isOpen() && writeAll(file.get(), content) && ::close(file.release()) == 0)
        return true;
    const int reason = errno;
    ::unlink(path.constData());
    errno = reason;
    return false;
}

std::optional<qint64> NumberedFiles::giveName(const QString &hidden)
{
    const QByteArray from = QFile::encodeName(directory.absoluteFilePath(hidden));
    do {
        latestName = fillIn(nameTemplate, ++lastNumber, QDateTime::currentDateTime());
        const QByteArray to = QFile::encodeName(directory.absoluteFilePath(latestName));
        // QFile::rename() would copy the bytes if renaming failed.
        if (existingFiles == Existing::Overwrite
                ? std::rename(from.constData(), to.constData()) == 0
                : renameWithoutReplacing(from, to))
            return lastNumber;
    } while (errno == EEXIST || errno == EISDIR);
    const int reason = errno;
    ::unlink(from.constData());
    errno = reason;
    return std::nullopt;
}
