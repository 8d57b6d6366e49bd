#include "NumberedFiles.h"

#include <QCoreApplication>
#include <QFile>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype shortestNumber = 6; // digits of a record's file name

} // namespace

QString paddedNumber(qint64 number)
{
    return u"%1"_s.arg(number, int(shortestNumber), 10, QChar(u'0'));
}

bool NumberedFiles::open(const QString &path, bool overwriting)
{
    directory = QDir(path);
    overwrite = overwriting;
    if (!directory.mkpath(u"."_s))
        return false;
    if (overwrite)
        return true;
    const QStringList names = directory.entryList(QDir::AllEntries | QDir::Hidden | QDir::System);
    for (const QString &name : names) {
        bool isNumber = false;
        const qint64 number = name.toLongLong(&isNumber);
        if (isNumber && name.size() >= shortestNumber)
            last = std::max(last, number);
    }
    return true;
}

QString NumberedFiles::pathOf(qint64 number) const
{
    return directory.absoluteFilePath(paddedNumber(number));
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
    do {
        ++last;
        if (overwrite)
            QFile::remove(pathOf(last));
        if (file.rename(pathOf(last))) // it never replaces a file
            return last;
    } while (QFile::exists(pathOf(last)));
    file.remove();
    return std::nullopt;
}
