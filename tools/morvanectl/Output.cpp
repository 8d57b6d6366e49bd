#include "Output.h"

#include <QDateTime>

#include <cstdio>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestText = 65'536; // bytes of one text shown; a module may send megabytes

OpenLine *openLine = nullptr;

void writeLine(FILE *file, const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    if (openLine)
        openLine->hide();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), file);
    std::fflush(file);
    if (openLine)
        openLine->show();
}

} // namespace

void say(const QString &line)
{
    writeLine(stdout, line);
}

void complain(const QString &line)
{
    writeLine(stderr, u"morvanectl: "_s + line);
}

void setOpenLine(OpenLine *line)
{
    openLine = line;
}

bool isTerminal()
{
    return ::isatty(STDOUT_FILENO) == 1;
}

QString timeStamp()
{
    return QDateTime::currentDateTime().toString(u"yyyy-MM-dd HH:mm:ss.zzz");
}

QString printable(const QByteArray &text)
{
    QString shown;
    for (const QChar c : QString::fromUtf8(text.left(longestText))) {
        if (c == u'\n' || c == u'\t' || c.category() != QChar::Other_Control)
            shown += c;
        else
            shown += u"\\x%1"_s.arg(c.unicode(), 2, 16, QChar(u'0'));
    }
    if (text.size() > longestText)
        shown += u"... (%1 bytes in all)"_s.arg(text.size());
    return shown;
}

QString counted(qint64 number, const QString &noun)
{
    return QString::number(number) + u' ' + noun + (number == 1 ? u""_s : u"s"_s);
}
