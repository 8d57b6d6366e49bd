#include "CommandLine.h"
#include "Commands.h"
#include "ModuleSettings.h"
#include "Output.h"
#include "SpoolObserver.h"
#include "StatusPage.h"
#include "StopSignals.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>
#include <QTimer>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto watchInterval = 1s;
constexpr char clearScreen[] = "\x1b[H\x1b[2J";

constexpr char description[] =
    R"(Shows what waits in the spool of the module with these SETTINGS: how many files and bytes,
the oldest file, the first ten in the order of sending, the refused files and why they were
refused, the records that the peer has not acknowledged yet, and the lock of a writer.

In UDP mode it also estimates the number of packets and, from "Timeout", the time that
they take. To count the packets it compresses up to 100 MB of files each time, as the
module would. It takes the rest uncompressed; the figures are upper bounds then. With a
"Timeout" of 0 the time depends on the link and is not shown ("seconds" is null with
--json).

If the settings name a status file, its counters follow. The module writes them every ten
seconds.

Nothing in the spool is changed. The exit status is 0, or 1 if the spool cannot be read.)";

// Prints an error and returns false if the folder cannot be read.
bool show(SpoolObserver &observer, const QString &statusFile, bool asJson)
{
    if (const QString problem = observer.problem(); !problem.isEmpty()) {
        complain(u"spool: %1: %2"_s.arg(observer.path(), problem));
        return false;
    }
    const SpoolState state = observer.look();
    const StatusPage page(statusFile);
    if (!asJson) {
        QString text = state.toText();
        for (const QString &line : page.lines())
            text += u"\nstatus   "_s + line;
        if (!page.problem().isEmpty())
            text += u"\nstatus   %1 cannot be read: %2"_s.arg(
                printable(statusFile.toUtf8()), page.problem());
        say(text);
        return true;
    }
    QJsonObject object = state.toJson();
    if (!statusFile.isEmpty())
        object.insert(u"status"_s, page.toJson());
    say(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    return true;
}

int watch(SpoolObserver &observer, const QString &statusFile, bool asJson)
{
    QTimer timer;
    const auto showAgain = [&] {
        if (!asJson)
            say(isTerminal() ? QString::fromLatin1(clearScreen) + timeStamp() : timeStamp());
        if (!show(observer, statusFile, asJson))
            QCoreApplication::exit(failureStatus);
    };
    timer.callOnTimeout(showAgain);
    endLoopOnStopSignals(&timer);
    timer.start(watchInterval);
    QTimer::singleShot(0, &timer, showAgain);
    return QCoreApplication::exec();
}

} // namespace

int runSpool(const QStringList &arguments)
{
    CommandLine line(u"spool"_s, u"SETTINGS"_s, QString::fromLatin1(description));
    addDirectoryOption(line);
    line.addFlag(u"watch"_s, u"Show the spool every second until stopped."_s);
    line.addFlag(u"json"_s, u"Print a JSON object; with --watch, one in each line."_s);
    if (!line.parse(arguments, 1, 1))
        return line.exitStatus();

    const QString file = line.positionals().constFirst();
    const ModuleSettings settings(file);
    if (const QString problem = settings.problem(); !problem.isEmpty()) {
        complain(u"spool: %1: %2"_s.arg(file, problem));
        return failureStatus;
    }
    const QString directory = line.value(u"directory"_s);
    const QDir workingDirectory(directory.isEmpty() ? QDir::currentPath() : directory);
    const QString path = settings.spoolPath(workingDirectory.path());
    QString statusFile = settings.main(MainSettings::statusFile);
    if (!statusFile.isEmpty())
        statusFile = workingDirectory.absoluteFilePath(statusFile);
    SpoolObserver observer(path,
        settings.isUdp() ? std::optional(settings.mainNumber(MainSettings::timeout))
                         : std::nullopt);
    if (line.isSet(u"watch"_s))
        return watch(observer, statusFile, line.isSet(u"json"_s));
    return show(observer, statusFile, line.isSet(u"json"_s)) ? 0 : failureStatus;
}
