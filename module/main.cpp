#include "Memory.h"
#include "Morvane.h"
#include "StopSignals.h"
#include "TLog.h"

#include <QCoreApplication>
#include <QTranslator>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

// The settings files that the command line names, in order. An empty path, which stands for the
// default file, when it names none.
QStringList settingsFiles(const QStringList &arguments)
{
    QStringList files;
    for (qsizetype i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments.at(i) == "-settings"_L1)
            files.append(arguments.at(++i));
    }
    return files.isEmpty() ? QStringList{QString()} : files;
}

} // namespace

int main(int argc, char *argv[])
{
    keepFreedMemory();
    // A limit on file sizes fails a write like a full disk, and a closed standard error a message:
    // neither ends the process.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    QCoreApplication application(argc, argv);
    endLoopOnStopSignals(&application);
    QTranslator translator;
    std::ignore = translator.load(u"Morvane.qm"_s); // optional: texts stay as they are without it
    QCoreApplication::installTranslator(&translator);

    // Lives until the process ends: what is under way needs no tearing down.
    static Morvane *const module = new Morvane;
    for (const QString &file : settingsFiles(QCoreApplication::arguments()))
        module->LoadSettings(file);
    module->Start();
    pLog->Message(u"Start Ok!"_s);
    return QCoreApplication::exec();
}
