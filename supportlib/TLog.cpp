#include "TLog.h"

#include "MainThread.h"
#include "SystemJournal.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString journalName = u"journal"_s;

TLog::Fields commonFields;
TLog::Observer observer;

constexpr qsizetype maxTextLength = 16'384; // UTF-16 units; a peer's name may be megabytes long

QString pathOf(const QString &name)
{
    if (name == journalName)
        return journalName;
    if (!name.contains(u'/'))
        return QDir::current().filePath(name + u".log"_s);
    const QString path = QDir::current().filePath(name);
    return QFileInfo(path).suffix().isEmpty() ? path + u".log"_s : path;
}

QString onOneLine(QString text)
{
    if (text.endsWith(u'\n'))
        text.chop(1);
    text.truncate(maxTextLength);
    QString line;
    line.reserve(text.size());
    for (const QChar c : std::as_const(text)) {
        if (c == u'\n')
            line += u"\\n"_s;
        else if (c == u'\t' || c.category() != QChar::Other_Control)
            line += c;
        else
            line += u"\\x%1"_s.arg(c.unicode(), 2, 16, QChar(u'0'));
    }
    return line;
}

QString timeStamp()
{
    const QDateTime now = QDateTime::currentDateTime();
    return now.toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

TLog *const disabledLog = new TLog(u"early"_s); // never destroyed: others may log until the end

} // namespace

TLog *pLog = disabledLog;

TLog::TLog(QString name)
    : path(pathOf(name))
{
}

TLog::~TLog()
{
    closeFile();
}

QString TLog::getDirPathDefault(const QString &executableBaseName)
{
    return executableBaseName;
}

void TLog::Enabled(bool on)
{
    Q_ASSERT(isMainThread());
    enabled = on;
}

void TLog::Message(QString text)
{
    Message(text, Priority::Information);
}

void TLog::Message(QString text, Priority priority, const Fields &fields)
{
    Q_ASSERT(isMainThread());
    if (observer && priority <= Priority::Warning)
        observer(onOneLine(text));
    if (!enabled)
        return;
    text = onOneLine(text);
    if (isJournal())
        writeToJournal(text, priority, fields);
    else
        write(text);
}

void TLog::JournalOnly(const QString &text, Priority priority)
{
    if (isJournal())
        Message(text, priority);
}

bool TLog::isJournal() const
{
    return path == journalName; // a file's path is absolute
}

void TLog::SetCommonFields(const Fields &fields)
{
    Q_ASSERT(isMainThread());
    commonFields = fields;
}

void TLog::SetObserver(Observer newObserver)
{
    Q_ASSERT(isMainThread());
    observer = std::move(newObserver);
}

void TLog::writeToJournal(const QString &text, Priority priority, const Fields &fields) const
{
    QByteArrayList entry{
        "MESSAGE=" + text.toUtf8(), "PRIORITY=" + QByteArray::number(int(priority))};
    for (const Fields &some : {commonFields, fields}) {
        for (const auto &[name, value] : some.asKeyValueRange()) {
            Q_ASSERT(name == name.toUpper());
            entry.append(name + '=' + value.toUtf8());
        }
    }
    if (!SystemJournal::send(entry))
        std::fprintf(
            stderr, "%s %s\n", timeStamp().toUtf8().constData(), text.toUtf8().constData());
}

void TLog::write(const QString &text)
{
    if (!isStillInPlace())
        closeFile();
    if (descriptor < 0 && !openFile())
        return warnOnce("open");

    // One write in append mode, so that entries of several processes do not mix and a kill loses
    // none.
    const QByteArray line = (timeStamp() + u' ' + text + u'\n').toUtf8();
    if (::write(descriptor, line.constData(), size_t(line.size())) != line.size())
        return warnOnce("write");
    hasWarned = false;
}

void TLog::Reopen()
{
    Q_ASSERT(isMainThread());
    closeFile();
    hasWarned = false;
}

bool TLog::openFile()
{
    descriptor = ::open(
        QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return descriptor >= 0;
}

// Returns false once log rotation has renamed or removed the file.
bool TLog::isStillInPlace() const
{
    struct stat opened, named;
    return descriptor >= 0 && ::fstat(descriptor, &opened) == 0
        && ::stat(QFile::encodeName(path).constData(), &named) == 0 && opened.st_dev == named.st_dev
        && opened.st_ino == named.st_ino;
}

void TLog::closeFile()
{
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

void TLog::warnOnce(const char *action)
{
    if (!hasWarned)
        std::fprintf(stderr, "Cannot %s the log file \"%s\": %s\n", action,
            QFile::encodeName(path).constData(), std::strerror(errno));
    hasWarned = true;
}
