#include "Arguments.h"

using namespace Qt::StringLiterals;

Arguments::Arguments(const QStringList &all)
{
    for (qsizetype i = 1; i < all.size(); ++i) {
        const QString &argument = all.at(i);
        if (argument == u"-settings" && i + 1 < all.size())
            settingsFiles.append(all.at(++i));
        else if (argument == u"-settings")
            remarks.append(
                u"\"-settings\" at the end has no effect: the name of a file is missing"_s);
        else if (argument == u"--help")
            task = Task::ShowHelp;
        else if (argument == u"--version")
            task = Task::ShowVersion;
        else
            remarks.append(u"Argument \"%1\" has no effect, see --help"_s.arg(argument));
    }
    if (settingsFiles.size() > 1)
        remarks.append(u"%1 settings files: they are read in turn, and the last one decides"_s.arg(
            settingsFiles.size()));
    if (settingsFiles.isEmpty())
        settingsFiles.append(QString());
}

QString helpText()
{
    return u"Usage: morvane [-settings FILE]\n"
           "Takes data records from a local bus, keeps them in a spool directory and carries\n"
           "them to one peer. It runs until a signal or the administration server ends it.\n\n"
           "  -settings FILE  Read the settings from FILE. Without it they are in morvane.ini\n"
           "                  beside the program, or else in the folder ~/.config.\n"
           "  --help          Show this help and leave.\n"
           "  --version       Show the version and leave.\n\n"
           "SIGTERM and SIGINT end it with status 0, SIGHUP makes it open its log anew.\n"
           "Before a start, \"morvanectl check FILE\" says what will not work in the settings."_s;
}
