#include "Output.h"

#include <QCoreApplication>
#include <QDateTime>

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestTextShown = 65'536; // bytes; a module may send megabytes

OpenLine *openLine = nullptr;
bool outputFailed = false;
bool outlivesOutput = false;

// Returns 0 or an errno value.
int writeLine(FILE *file, const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    if (openLine)
        openLine->hide();
    const bool isWhole =
        std::fwrite(bytes.constData(), 1, size_t(bytes.size()), file) == size_t(bytes.size())
        && std::fflush(file) == 0;
    const int error = isWhole ? 0 : errno;
    if (openLine)
        openLine->show();
    return error;
}

} // namespace

void say(const QString &line)
{
    const int error = writeLine(stdout, line);
    if (error == 0 || std::exchange(outputFailed, true))
        return;
    complain(u"cannot write to standard output: "_s + qt_error_string(error));
    // Queued, so that it also ends a loop that has not begun.
    if (!outlivesOutput)
        QMetaObject::invokeMethod(
            qApp, [] { QCoreApplication::exit(failureStatus); }, Qt::QueuedConnection);
}

int honestStatus(int status)
{
    return status == 0 && outputFailed ? failureStatus : status;
}

void outliveOutput()
{
    outlivesOutput = true;
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

bool isFullTerminal()
{
    const QByteArray kind = qgetenv("TERM");
    return isTerminal() && !kind.isEmpty() && kind != "dumb";
}

bool hasColours()
{
    return isFullTerminal() && qgetenv("NO_COLOR").isEmpty();
}

bool isJournal()
{
    struct stat info;
    return ::fstat(STDOUT_FILENO, &info) == 0
        && qgetenv("JOURNAL_STREAM")
        == QByteArray::number(quint64(info.st_dev)) + ':'
            + QByteArray::number(quint64(info.st_ino));
}

QString timeStamp()
{
    return QDateTime::currentDateTime().toString(u"yyyy-MM-dd HH:mm:ss.zzz");
}

QString printable(const QByteArray &text)
{
    QString shown;
    for (const QChar c : QString::fromUtf8(text.left(longestTextShown))) {
        if (c == u'\n' || c == u'\t' || c.category() != QChar::Other_Control)
            shown += c;
        else
            shown += u"\\x%1"_s.arg(c.unicode(), 2, 16, QChar(u'0'));
    }
    if (text.size() > longestTextShown)
        shown += u"... (%1 bytes in all)"_s.arg(text.size());
    return shown;
}

QString counted(qint64 number, const QString &noun)
{
    return QString::number(number) + u' ' + noun + (number == 1 ? u""_s : u"s"_s);
}
