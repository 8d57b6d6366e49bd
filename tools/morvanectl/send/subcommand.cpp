#include "BusFrame.h"
#include "BusName.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Descriptor.h"
#include "FileCalls.h"
#include "FileName.h"
#include "NameGuess.h"
#include "NameTemplate.h"
#include "Outgoing.h"
#include "Output.h"
#include "RecordKinds.h"
#include "Sender.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QSet>

#include <cerrno>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr char description[] =
    R"(Sends files, or standard input with "-", to the module with the bus name MODULE, as data
records in the order given. It exits when every byte has left this process.

A record has a name, under which the module keeps it in its spool. This is the file's base
name, or the one that --name gives: {name} stands for the base name, {number} for the
file's place on the command line (000001 and so on), and {time} for the start of the run,
in UTC (20301231T235959Z). A record replaces a waiting one with the same name, so names
must differ. If any file cannot be sent, nothing is. Standard input is read to its end
before anything is sent. The bus takes frames of up to 50,000,000 bytes; a longer input is
refused.

If the module reads nothing for five seconds, the tool reports it and keeps waiting, unless
--timeout is given. Success means that all bytes were handed over, not that the module has
stored them. The bus sockets are in the temporary folder, so TMPDIR must be the same for
all processes on the bus.)";

// Returns why the file cannot be sent, as far as that is known before; empty if it can.
QString problemWith(const QString &file)
{
    struct stat info = {};
    const Descriptor opened(openRegularFile(file, info));
    if (!opened.isOpen())
        return u"cannot be read: "_s
            + (errno == EINVAL ? u"it is not a regular file; \"-\" reads standard input"_s
                               : qt_error_string());
    if (info.st_size > longestBody)
        return u"has %1 bytes, more than the %2 that a frame holds"_s.arg(
            QString::number(info.st_size), QString::number(longestBody));
    return {};
}

// Prints why each unreadable file cannot be sent. Returns false if there is one.
bool checkFiles(const SendOptions &options)
{
    bool areAllReadable = true;
    for (const auto &[file, name] : options.items) {
        const QString problem = file == standardInput ? QString() : problemWith(file);
        if (!problem.isEmpty())
            complain(u"send: %1 %2"_s.arg(file, problem));
        areAllReadable = areAllReadable && problem.isEmpty();
    }
    return areAllReadable;
}

// Pairs each file with the name of its record, which is the base name if there is no template.
QList<SendOptions::Item> itemsOf(const QStringList &files, const QString &nameTemplate)
{
    const QDateTime now = QDateTime::currentDateTime();
    QList<SendOptions::Item> items;
    for (const QString &file : files) {
        const QString text = nameTemplate.isEmpty() ? u"{name}"_s : nameTemplate;
        // Insert the base name last, so that braces in it stay as they are.
        QString name = fillIn(text, items.size() + 1, now);
        name.replace(u"{name}"_s, QFileInfo(file).fileName());
        items.append({file, name});
    }
    return items;
}

constexpr qsizetype shownOfLongName = 40; // characters

// Returns what is wrong with the names of the records; empty if nothing is.
QString nameProblem(const SendOptions &options, const QString &nameTemplate)
{
    if (const QString problem = templateProblem(nameTemplate, {u"name"_s, u"number"_s, u"time"_s});
        !problem.isEmpty())
        return u"--name: "_s + problem;
    QSet<QString> names;
    for (const auto &[file, name] : options.items) {
        if (file == standardInput && options.items.size() > 1)
            return u"Standard input cannot be sent together with files."_s;
        if (file == standardInput && nameTemplate.isEmpty())
            return u"Standard input needs a name for its record: --name."_s;
        if (!isPlainName(name))
            return u"No module keeps a record with the name \"%1\": it must not be empty, "
                   "hold \"/\" or begin with a dot. Use --name to give another."_s.arg(name);
        if (const qsizetype bytes = name.toUtf8().size(); bytes > longestFileName)
            return u"No module keeps a record whose name has %1 bytes, more than the %2 of a "
                   "file name: \"%3...\". Use --name to give another."_s.arg(QString::number(bytes),
                       QString::number(longestFileName), name.left(shownOfLongName));
        if (names.contains(name))
            return u"Two records would have the name \"%1\", so one would replace the other. Use "
                   "--name to give others."_s.arg(name);
        names.insert(name);
    }
    return {};
}

bool isDataVersion(int version)
{
    return version != BusFrame::Name && version != BusFrame::Action && version != BusFrame::Command
        && version != BusFrame::BusMessage;
}

void addOptions(CommandLine &line)
{
    line.addValue(u"kind"_s, u"KIND"_s, u"tempdb (default), error or tempdb_t."_s, u"tempdb"_s);
    line.addValue(u"name"_s, u"TEXT"_s,
        u"The record's name, made from {name}, {number} and {time} (default {name})."_s);
    line.addValue(u"data-version"_s, u"N"_s,
        u"Version byte of the data frames, 0 to 255 but not 200, 202, 203, 204 (default 1)."_s,
        u"1"_s);
    line.addValue(u"wait"_s, u"SECONDS"_s,
        u"Wait up to SECONDS for the module to listen (default 0)."_s, u"0"_s);
    line.addValue(u"timeout"_s, u"SECONDS"_s,
        u"Give up when the module has read nothing for SECONDS (default: never)."_s);
    line.addValue(u"as"_s, u"NAME"_s, u"The name of this sender on the bus (default morvanectl)."_s,
        u"morvanectl"_s);
    line.addFlag(u"quiet"_s, u"Report only what goes wrong."_s);
}

// Prints a usage error and returns false if the command line makes no sense.
bool readOptions(CommandLine &line, SendOptions &options)
{
    options.module = line.positionals().constFirst();
    options.items = itemsOf(line.positionals().sliced(1), line.value(u"name"_s));
    options.kind = line.value(u"kind"_s).toUtf8();
    options.ownBusName = line.value(u"as"_s).toUtf8();
    options.quiet = line.isSet(u"quiet"_s);
    const std::optional<int> version = line.number(u"data-version"_s, 0, 255);
    const std::optional<int> wait = line.number(u"wait"_s, 0, longestSeconds);
    const std::optional<int> timeout =
        line.isSet(u"timeout"_s) ? line.number(u"timeout"_s, 1, longestSeconds) : 0;
    if (!version || !wait || !timeout)
        return false;
    options.dataVersion = uchar(*version);
    options.standstillLimitSeconds = *timeout;
    options.listenWaitSeconds = *wait;
    if (!isDataVersion(*version))
        return line.wrongUsage(
            u"--data-version %1 is the version of another kind of frame."_s.arg(*version));
    const QString kind = QString::fromUtf8(options.kind);
    if (!isAcceptedKind(options.kind))
        return line.wrongUsage(
            guessSentence(u"Modules take no records of the kind \"%1\""_s.arg(kind), kind,
                {u"tempdb"_s, u"error"_s, u"tempdb_t"_s}));
    if (const QString problem = busNameProblem(options.module); !problem.isEmpty())
        return line.wrongUsage(u"\"%1\": %2."_s.arg(options.module, problem));
    if (const QString problem = nameProblem(options, line.value(u"name"_s)); !problem.isEmpty())
        return line.wrongUsage(problem);
    return true;
}

} // namespace

int runSend(const QStringList &arguments)
{
    CommandLine line(u"send"_s, u"MODULE FILE...|-"_s, QString::fromLatin1(description));
    addOptions(line);
    SendOptions options;
    if (!line.parse(arguments, 2) || !readOptions(line, options))
        return line.exitStatus();
    if (!checkFiles(options))
        return failureStatus;

    outliveOutput(); // delivering the records matters more
    Sender sender(options);
    QTimer::singleShot(0, &sender, &Sender::start);
    return QCoreApplication::exec();
}
