#include "Arguments.h"
#include "Memory.h"
#include "ModuleVersion.h"
#include "Morvane.h"
#include "Settings.h"
#include "StopSignals.h"
#include "TLog.h"
#include "Version.h"

#include <QCoreApplication>
#include <QTranslator>

#include <csignal>
#include <cstdio>
#include <cstring>

using namespace Qt::StringLiterals;

namespace {

constexpr int failureStatus = 1;

int show(const QString &text)
{
    const QByteArray line = text.toUtf8() + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    return std::fflush(stdout) == 0 ? 0 : failureStatus;
}

QString version()
{
    return u"morvane %1, support library %2"_s.arg(moduleVersion(), getHarnixVersion());
}

void logStart(const QStringList &settingsFiles)
{
    pLog->Message(u"This is %1, process %2, settings %3"_s.arg(version(),
        QString::number(QCoreApplication::applicationPid()),
        settingsFiles.last().isEmpty() ? getIniNameDefault(false) : settingsFiles.last()));
}

void logStop(int status)
{
    const QString signal = stopSignal() == 0
        ? QString()
        : u" by SIG%1"_s.arg(QLatin1StringView(::sigabbrev_np(stopSignal())));
    pLog->Message(u"Stopped%1, exit status %2"_s.arg(signal).arg(status));
}

int run(const QStringList &settingsFiles)
{
    QTranslator translator;
    std::ignore = translator.load(u"Morvane.qm"_s); // optional: the texts stay as they are without
    QCoreApplication::installTranslator(&translator);

    // Never destroyed: the next start tidies up whatever the end of the process leaves.
    static Morvane *const module = new Morvane;
    for (const QString &file : settingsFiles)
        module->LoadSettings(file);
    module->Start();
    pLog->Message(u"Start Ok!"_s);
    logStart(settingsFiles);
    const int endOfLoop = QCoreApplication::exec();
    // If the administration server is stopped together with the module, losing it ends the loop
    // with an error. After a stop signal that does not count.
    const int status = stopSignal() == 0 ? endOfLoop : 0;
    module->reportEnd();
    logStop(status);
    return status;
}

} // namespace

int main(int argc, char *argv[])
{
    keepFreedMemory();
    // A write beyond the file size limit or to a closed standard error then fails with an error
    // code instead of ending the process.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    // Lines on standard error do not begin with the name of their category.
    qSetMessagePattern(u"%{message}"_s);
    QCoreApplication application(argc, argv);
    const Arguments arguments(QCoreApplication::arguments());
    for (const QString &remark : arguments.remarks)
        std::fprintf(stderr, "morvane: %s\n", remark.toUtf8().constData());
    if (arguments.task == Arguments::Task::ShowHelp)
        return show(helpText());
    if (arguments.task == Arguments::Task::ShowVersion)
        return show(version());
    endLoopOnStopSignals(&application);
    onSignals({SIGHUP}, &application, [](int) { pLog->Reopen(); });
    return run(arguments.settingsFiles);
}
