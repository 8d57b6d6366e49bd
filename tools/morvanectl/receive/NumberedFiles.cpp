#include "NumberedFiles.h"

#include "NameTemplate.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>

#include <cerrno>

using namespace Qt::StringLiterals;

bool NumberedFiles::open(const QString &path, const QString &templateText, bool overwriting)
{
    directory = QDir(path);
    nameTemplate = templateText;
    overwrite = overwriting;
    if (!directory.mkpath(u"."_s))
        return false;
    const QMap<qint64, QString> there = overwrite ? QMap<qint64, QString>() : behind(0);
    if (!there.isEmpty())
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
    const QString hidden = u".incoming-%1"_s.arg(QCoreApplication::applicationPid());
    QFile::remove(directory.absoluteFilePath(hidden));
    return write(hidden, content) ? giveName(hidden) : std::nullopt;
}

bool NumberedFiles::write(const QString &hidden, const QByteArray &content) const
{
    QFile file(directory.absoluteFilePath(hidden));
    if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly)
        && file.write(content) == content.size() && file.flush())
        return true;
    const int reason = errno;
    file.remove();
    errno = reason;
    return false;
}

std::optional<qint64> NumberedFiles::giveName(const QString &hidden)
{
    QFile file(directory.absoluteFilePath(hidden));
    QString path;
    do {
        latestName = fillIn(nameTemplate, ++lastNumber, QDateTime::currentDateTime());
        path = directory.absoluteFilePath(latestName);
        if (overwrite)
            QFile::remove(path);
        if (file.rename(path)) // it never replaces a file
            return lastNumber;
    } while (QFile::exists(path));
    file.remove();
    return std::nullopt;
}
