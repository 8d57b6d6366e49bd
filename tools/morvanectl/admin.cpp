#include "AdminCommand.h"
#include "AdminEvents.h"
#include "AdminServer.h"
#include "BusName.h"
#include "CommandLine.h"
#include "CommandRun.h"
#include "Commands.h"
#include "Output.h"
#include "StopSignals.h"
#include "TypedCommands.h"

#include <QCoreApplication>
#include <QTimer>

#include <chrono>

using namespace Qt::StringLiterals;

namespace {

constexpr char description[] =
    R"(Listens on the local bus as administration server NAME, shows every module that
connects and every action that it sends, and sends commands to all of them.

Every argument COMMAND and every line on standard input is one command:
  about             the module describes itself         (About)
  watch on|off      reports of records and link events  (Input_Data_On, Input_Data_Off)
  arrows on|off     reports of every data frame         (Watch_Arrow_On, Watch_Arrow_Off)
  stop MODULE|all   the module ends with status 0       (QuitSignal)
  quit              the same as "stop all", but not on a terminal
  send-command MODULE|all TEXT   any other command, as it stands
A module's name behind it sends a command to that one only, as in "about NAME"; as an
argument that is one, in quotes. The modules' own names, in brackets above, and any
other text are sent to all as they stand; modules ignore what they do not know.

COMMANDs as arguments are sent in order, once the first module, or the one meant, has
connected. "about" waits for the answers, "quit" until the modules have gone. Then the
server leaves, unless --stay or --for keep it.

  NOTE: a module ends with status 5 when its administration server goes.

Commands on standard input that come before any module wait for the first one. On a
terminal a line can be edited, and the arrow keys bring earlier ones back; the Tab key completes
words and names of modules; "exit" and Ctrl-D leave, "stop" asks first, unknown words are not sent, and "help" tells more. The end
of standard input ends the server only on a terminal; in a script it stays until
--for is over, SIGINT or SIGTERM, each with status 0. The bus lies in the temporary
folder: TMPDIR must be the same for all its processes.

With --json everything that happens is one object a line: time, event ("listening",
"connected", "renamed", "disconnected" or "action"), module, and for actions action,
id, message and base64, the data.)";

void warnOfOrphans(const AdminServer &server)
{
    QStringList names;
    const QList<qint64> modules = server.modules();
    for (const qint64 module : modules)
        names += server.nameOf(module);
    if (!names.isEmpty())
        complain(u"admin: leaving; with their administration server gone these modules end with "
                 "status 5: "_s
            + names.join(u", "_s));
}

struct AdminOptions
{
    QList<AdminCommand> commands;
    int waitSeconds = 0; // for a module to connect and for each answer
    int forSeconds = 0; // to stay after the commands
    bool leaves = false; // after the commands and that time
};

int serve(AdminServer &server, const AdminOptions &options)
{
    QTimer stay;
    stay.setSingleShot(true);
    stay.setInterval(std::chrono::seconds(options.forSeconds));
    stay.callOnTimeout([] { QCoreApplication::exit(0); });

    std::optional<TypedCommands> typed;
    CommandRun run(server, options.commands, options.waitSeconds);
    QObject::connect(&run, &CommandRun::failed, [] { QCoreApplication::exit(failureStatus); });
    QObject::connect(&run, &CommandRun::done, &server, [&] {
        if (options.leaves)
            stay.start();
        if (!options.leaves || options.forSeconds > 0)
            typed.emplace(server);
    });
    endLoopOnStopSignals(&server);
    QTimer::singleShot(0, &run, &CommandRun::start);
    const int status = QCoreApplication::exec();
    warnOfOrphans(server);
    return status;
}

// The options, or the exit status of a wrong usage, said.
std::optional<int> readOptions(const CommandLine &line, AdminOptions &options)
{
    const QStringList texts = AdminCommand::textsOf(line.positionals().sliced(1));
    for (const QString &text : texts) {
        const std::optional<AdminCommand> command = AdminCommand::read(text);
        if (!command)
            return line.wrongUsage(u"\"%1\" is no command."_s.arg(text));
        options.commands.append(*command);
    }
    const std::optional<int> wait = line.number(u"wait"_s, 1, longestSeconds);
    const std::optional<int> period =
        line.isSet(u"for"_s) ? line.number(u"for"_s, 1, longestSeconds) : 0;
    if (!wait || !period)
        return usageStatus;
    options.waitSeconds = *wait;
    options.forSeconds = *period;
    options.leaves = *period > 0 || (!options.commands.isEmpty() && !line.isSet(u"stay"_s));
    if (line.isSet(u"stay"_s) && *period > 0)
        return line.wrongUsage(u"--stay and --for exclude each other."_s);
    const QString name = line.positionals().constFirst();
    if (const QString problem = busNameProblem(name); !problem.isEmpty())
        return line.wrongUsage(u"\"%1\": %2."_s.arg(name, problem));
    return std::nullopt;
}

} // namespace

int runAdmin(const QStringList &arguments)
{
    CommandLine line(u"admin"_s, u"NAME [COMMAND...]"_s, QString::fromLatin1(description));
    line.addValue(u"wait"_s, u"SECONDS"_s,
        u"How long to wait for a module, and for each effect of a COMMAND (default 30)."_s,
        u"30"_s);
    line.addValue(u"for"_s, u"SECONDS"_s, u"Stay so long after the COMMANDs, then leave."_s);
    line.addFlag(u"stay"_s, u"Stay after the COMMANDs until stopped."_s);
    line.addFlag(u"json"_s, u"Print one JSON object a line."_s);
    if (const std::optional<int> status = line.parse(arguments, 1))
        return *status;
    AdminOptions options;
    if (const std::optional<int> status = readOptions(line, options))
        return *status;

    const QString name = line.positionals().constFirst();
    AdminServer server;
    const AdminEvents events(server, line.isSet(u"json"_s));
    if (const QString problem = server.listen(name); !problem.isEmpty()) {
        complain(u"admin: cannot listen as %1: %2"_s.arg(name, problem));
        return failureStatus;
    }
    events.show(
        u"Listening as %1, waiting for modules"_s.arg(name), "listening", {{u"name"_s, name}});
    return serve(server, options);
}
