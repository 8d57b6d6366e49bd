#include "NumberedFiles.h"

#include "NameTemplate.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>

#include <algorithm>

using namespace Qt::StringLiterals;

bool NumberedFiles::open(const QString &path, const QString &nameTemplate, bool overwriting)
{
    directory = QDir(path);
    names = nameTemplate;
    overwrite = overwriting;
    if (!directory.mkpath(u"."_s))
        return false;
    if (overwrite)
        return true;
    const QRegularExpression isOurs = namesFrom(names);
    const QStringList there = directory.entryList(QDir::AllEntries | QDir::Hidden | QDir::System);
    for (const QString &name : there)
        last = std::max(last, isOurs.match(name).captured(1).toLongLong());
    return true;
}

QString NumberedFiles::nextPath()
{
    return directory.absoluteFilePath(fillIn(names, ++last, QDateTime::currentDateTime()));
}

// A file that is cut short by a crash keeps its hidden name.
std::optional<qint64> NumberedFiles::add(const QByteArray &content)
{
    QFile file(
        directory.absoluteFilePath(u".incoming-%1"_s.arg(QCoreApplication::applicationPid())));
    file.remove();
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)
        || file.write(content) != content.size() || !file.flush()) {
        file.remove();
        return std::nullopt;
    }
    file.close();
    QString path;
    do {
        path = nextPath();
        if (overwrite)
            QFile::remove(path);
        if (file.rename(path)) // it never replaces a file
            return last;
    } while (QFile::exists(path));
    file.remove();
    return std::nullopt;
}
