#include "BusName.h"

#include <QDir>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestPath = 106; // bytes that the kernel's socket address takes here

// A module reads the names in its settings as Latin-1, so others lead to different files.
bool isPlainAscii(const QString &name)
{
    return std::all_of(name.begin(), name.end(), [](QChar c) { return c > u' ' && c < u'\x7f'; });
}

} // namespace

QString busSocketPath(const QString &name)
{
    return QDir(QDir::tempPath()).absoluteFilePath(name);
}

QString busNameProblem(const QString &name)
{
    if (name.isEmpty() || !isPlainAscii(name))
        return u"a bus name is made of ASCII characters without blanks"_s;
    const QByteArray path = busSocketPath(name).toLocal8Bit();
    if (path.size() > longestPath)
        return u"the socket's path %1 has %2 bytes, at most %3 are possible (see TMPDIR)"_s.arg(
            QString::fromLocal8Bit(path), QString::number(path.size()),
            QString::number(longestPath));
    return {};
}
