#include "AdminCommand.h"
#include "AdminEvents.h"
#include "AdminServer.h"
#include "AdminService.h"
#include "AttachedBus.h"
#include "BusName.h"
#include "CommandLine.h"
#include "CommandRun.h"
#include "Commands.h"
#include "ControlProtocol.h"
#include "Output.h"
#include "ServiceManager.h"
#include "StopSignals.h"
#include "TypedCommands.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QTimer>

#include <chrono>

using namespace Qt::StringLiterals;

namespace {

constexpr char description[] =
    R"(Shows every module at the administration server NAME of the local bus and every action
that the modules send, and sends them commands.

With --serve this is the administration server itself, until it is stopped. It takes no
commands, writes what happens to standard output, and lets consoles attach to it. Without
--serve this is a console. It attaches to such a server if there is one; any number can,
and leaving has no effect on the modules. If there is none, the console is the
administration server itself.

  NOTE: a module ends with status 5 when its administration server goes.

Every argument COMMAND and every line on standard input is one command:
  about             the module describes itself         (About)
  watch on|off      reports of records and link events  (Input_Data_On, Input_Data_Off)
  arrows on|off     reports of every data frame         (Watch_Arrow_On, Watch_Arrow_Off)
  stop MODULE|all   the module ends with status 0       (QuitSignal)
  quit              the same as "stop all", but not on a terminal
  send-command MODULE|all TEXT   any other command, as it stands
A command that is followed by the name of a module goes to that module only, as in
"about NAME"; as an argument that needs quotes. The modules' own names for the commands,
in brackets above, and any other text go to all modules as they are. Modules ignore what
they do not know.

COMMANDs as arguments are sent in order, as soon as the first module, or the named one,
has connected. "about" waits for the answers, "quit" until the modules have ended. Then the
console exits, unless --stay or --for keep it.

Commands on standard input that come before any module wait for the first one. On a
terminal you can edit a line; the arrow keys bring earlier lines back, and the Tab key
completes words and names of modules. "exit" and Ctrl-D leave, "stop" asks first, unknown
words are not sent, and "help" explains more. On a terminal the end of standard input ends
the console. In a script the console stays until --for is over, or until SIGINT or SIGTERM;
its exit status is 0 then. The bus sockets are in the temporary folder, so TMPDIR must be
the same for all processes on the bus.

With --json each event is one line with an object: time, event ("listening" or "attached",
"connected", "renamed", "disconnected" or "action") and module, and for an action also
action, id, message and base64, which is the data.)";

QStringList namesOf(const ModuleBus &bus)
{
    QStringList names;
    const QList<qint64> modules = bus.modules();
    for (const qint64 module : modules)
        names += bus.nameOf(module);
    return names;
}

void warnOfOrphans(const AdminServer &server)
{
    const QStringList names = namesOf(server);
    if (!names.isEmpty())
        complain(u"admin: leaving; without their administration server these modules end with "
                 "status 5: "_s
            + names.join(u", "_s));
}

struct AdminOptions
{
    QList<AdminCommand> commands;
    int waitSeconds = 0; // for a module to connect and for each answer
    int forSeconds = 0; // to stay after the commands
    bool leaves = false; // after the commands and that time
    bool asJson = false;
};

int runConsole(ModuleBus &bus, const AdminOptions &options)
{
    QTimer exitTimer;
    exitTimer.setSingleShot(true);
    exitTimer.setInterval(std::chrono::seconds(options.forSeconds));
    exitTimer.callOnTimeout([] { QCoreApplication::exit(0); });

    std::optional<TypedCommands> typed;
    CommandRun run(bus, options.commands, options.waitSeconds);
    QObject::connect(&run, &CommandRun::failed, [] { QCoreApplication::exit(failureStatus); });
    QObject::connect(&run, &CommandRun::done, &bus, [&] {
        if (options.leaves)
            exitTimer.start();
        if (!options.leaves || options.forSeconds > 0)
            typed.emplace(bus);
    });
    endLoopOnStopSignals(&bus);
    QTimer::singleShot(0, &run, &CommandRun::start);
    return QCoreApplication::exec();
}

int runAttached(AttachedBus &bus, const QString &name, const AdminOptions &options)
{
    const AdminEvents events(bus, options.asJson);
    const QStringList names = namesOf(bus);
    events.show(u"Attached to %1; connected: %2"_s.arg(
                    name, names.isEmpty() ? u"no module"_s : names.join(u", "_s)),
        "attached", {{u"name"_s, name}, {u"modules"_s, QJsonArray::fromStringList(names)}});
    QObject::connect(&bus, &AttachedBus::lost, [] {
        complain(u"admin: the administration server has gone"_s);
        QCoreApplication::exit(failureStatus);
    });
    return runConsole(bus, options);
}

int failToListen(const QString &name, const QString &problem)
{
    complain(u"admin: cannot listen as %1: %2"_s.arg(name, problem));
    return failureStatus;
}

int runServer(const QString &name, const AdminOptions &options)
{
    AdminServer server;
    const AdminEvents events(server, options.asJson);
    if (const QString problem = server.listen(name); !problem.isEmpty())
        return failToListen(name, problem);
    events.show(
        u"Listening as %1, waiting for modules; they end when this console leaves"_s.arg(name),
        "listening", {{u"name"_s, name}});
    const int status = runConsole(server, options);
    warnOfOrphans(server);
    return status;
}

int runService(const QString &name, bool asJson)
{
    AdminService service(asJson);
    outliveOutput(); // because the modules end with this process
    endLoopOnStopSignals(&service);
    if (const QString problem = service.listen(name); !problem.isEmpty())
        return failToListen(name, problem);
    ServiceManager::sayReady();
    const int status = QCoreApplication::exec();
    ServiceManager::sayStopping();
    warnOfOrphans(service.modules());
    return status;
}

// Fills in the options. On wrong usage it prints an error and returns the exit status.
std::optional<int> readOptions(const CommandLine &line, AdminOptions &options)
{
    const QStringList texts = AdminCommand::textsOf(line.positionals().sliced(1));
    for (const QString &text : texts) {
        const std::optional<AdminCommand> command = AdminCommand::read(text);
        if (!command)
            return line.wrongUsage(u"\"%1\" is not a command."_s.arg(text));
        options.commands.append(*command);
    }
    const std::optional<int> wait = line.number(u"wait"_s, 1, longestSeconds);
    const std::optional<int> period =
        line.isSet(u"for"_s) ? line.number(u"for"_s, 1, longestSeconds) : 0;
    if (!wait || !period)
        return usageStatus;
    options.waitSeconds = *wait;
    options.forSeconds = *period;
    options.asJson = line.isSet(u"json"_s);
    options.leaves = *period > 0 || (!options.commands.isEmpty() && !line.isSet(u"stay"_s));
    if (line.isSet(u"stay"_s) && *period > 0)
        return line.wrongUsage(u"--stay and --for exclude each other."_s);
    const bool serves = line.isSet(u"serve"_s);
    if (serves && (!options.commands.isEmpty() || options.leaves || line.isSet(u"stay"_s)))
        return line.wrongUsage(u"--serve takes no COMMANDs, and stays."_s);
    const QString name = line.positionals().constFirst();
    const QString longest = serves ? ControlProtocol::socketName(name) : name;
    if (const QString problem = busNameProblem(longest); !problem.isEmpty())
        return line.wrongUsage(u"\"%1\": %2."_s.arg(longest, problem));
    return std::nullopt;
}

} // namespace

int runAdmin(const QStringList &arguments)
{
    CommandLine line(u"admin"_s, u"NAME [COMMAND...]"_s, QString::fromLatin1(description));
    line.addValue(u"wait"_s, u"SECONDS"_s,
        u"How long to wait for a module, and for each effect of a COMMAND (default 30)."_s,
        u"30"_s);
    line.addValue(u"for"_s, u"SECONDS"_s, u"Stay for SECONDS after the COMMANDs, then exit."_s);
    line.addFlag(u"stay"_s, u"Stay after the COMMANDs until stopped."_s);
    line.addFlag(u"serve"_s, u"Be the administration server until stopped, without a console."_s);
    line.addFlag(u"json"_s, u"Print each event as one line with a JSON object."_s);
    if (const std::optional<int> status = line.parse(arguments, 1))
        return *status;
    AdminOptions options;
    if (const std::optional<int> status = readOptions(line, options))
        return *status;

    const QString name = line.positionals().constFirst();
    if (line.isSet(u"serve"_s))
        return runService(name, options.asJson);
    AttachedBus bus;
    switch (bus.attach(name)) {
    case AttachedBus::Outcome::Attached:
        return runAttached(bus, name, options);
    case AttachedBus::Outcome::Failed:
        complain(u"admin: cannot attach to %1: %2"_s.arg(name, bus.problem()));
        return failureStatus;
    case AttachedBus::Outcome::NobodyThere:
        break;
    }
    return runServer(name, options);
}
