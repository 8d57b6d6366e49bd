#include "Commands.h"
#include "ModuleVersion.h"
#include "NameGuess.h"
#include "Output.h"
#include "Version.h"

#include <QCoreApplication>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

struct Subcommand
{
    QString name;
    QString summary;
    int (*run)(const QStringList &arguments);
};

const Subcommand subcommands[] = {
    {u"admin"_s, u"show what modules report and send them commands, or be their server"_s,
        runAdmin},
    {u"send"_s, u"send files to a module as records"_s, runSend},
    {u"receive"_s, u"be the TCP peer that takes a module's records"_s, runReceive},
    {u"check"_s, u"find the mistakes in a module's settings file"_s, runCheck},
    {u"spool"_s, u"show what waits in a module's spool"_s, runSpool},
};

QString overview()
{
    QString text =
        u"Usage: morvanectl SUBCOMMAND [options] ...\n"
        "Operates a transfer module, and stands in for the programs that it talks to.\n\n"_s;
    for (const Subcommand &subcommand : subcommands)
        text += u"  %1 %2\n"_s.arg(subcommand.name, -9).arg(subcommand.summary);
    return text
        + u"\n\"morvanectl help SUBCOMMAND\" describes one; --version prints the version.\n"
          "Exit status: 0 success, 1 failure, 2 wrong usage, 3 some records that\n"
          "arrived were not kept. \"check\" has its own statuses; see its help."_s;
}

const Subcommand *find(const QString &name)
{
    for (const Subcommand &subcommand : subcommands) {
        if (subcommand.name == name)
            return &subcommand;
    }
    return nullptr;
}

bool isHelpWord(const QString &word)
{
    return word == u"--help"_s || word == u"-h"_s || word == u"help"_s;
}

QStringList firstWords()
{
    QStringList names = {u"help"_s, u"--help"_s, u"--version"_s};
    for (const Subcommand &subcommand : subcommands)
        names.append(subcommand.name);
    return names;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    std::signal(SIGPIPE, SIG_IGN); // a write to a closed pipe then fails with EPIPE
    const QStringList arguments = QCoreApplication::arguments();
    const QString chosen = arguments.value(1);
    const bool isHelp = isHelpWord(chosen);
    if (isHelp && (chosen != u"help"_s || arguments.size() < 3 || isHelpWord(arguments.at(2)))) {
        say(overview());
        return honestStatus(0);
    }
    if (chosen == u"--version"_s) {
        say(u"morvanectl %1, support library %2"_s.arg(moduleVersion(), getHarnixVersion()));
        return honestStatus(0);
    }
    // "help COMMAND" is "COMMAND --help".
    if (const Subcommand *subcommand = find(isHelp ? arguments.at(2) : chosen))
        return honestStatus(subcommand->run(
            isHelp ? QStringList{subcommand->name, u"--help"_s} : arguments.sliced(1)));
    const QString unknown = isHelp ? arguments.at(2) : chosen;
    const QString problem = unknown.isEmpty() ? u"A subcommand is missing"_s
                                              : u"Unknown subcommand \"%1\""_s.arg(unknown);
    complain(guessSentence(problem, unknown, firstWords()) + u" See \"morvanectl --help\"."_s);
    return usageStatus;
}
