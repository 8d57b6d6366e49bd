#include "AdminEvents.h"
#include "AdminOptions.h"
#include "AdminServer.h"
#include "AdminService.h"
#include "AttachedBus.h"
#include "CommandLine.h"
#include "CommandRun.h"
#include "Commands.h"
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
--serve this is a console. It attaches to a running --serve server; several consoles
can attach, and leaving one does not affect the modules. If no such server runs, the
console itself is the administration server.

  NOTE: when its administration server ends, a module exits with status 5.

Every argument COMMAND and every line on standard input is one command:
  about             the module describes itself         (About)
  watch on|off      reports of records and link events  (Input_Data_On, Input_Data_Off)
  arrows on|off     reports of every data frame         (Watch_Arrow_On, Watch_Arrow_Off)
  stop MODULE|all   the module ends with status 0       (QuitSignal)
  quit              the same as "stop all"; on a terminal it only explains how to leave
  send-command MODULE|all TEXT   any other command, as it stands
A command that is followed by the name of a module goes to that module only. Put quotes
around such an argument: "about transfer1". The modules' own names for the commands, in
brackets above, are commands too. Any other text goes to all modules unchanged, except on a
terminal; modules ignore what they do not know.

The tool sends the COMMANDs among its arguments in order, as soon as the first module, or
the named one, has connected. After "about" it waits for the answers, and after "quit"
until the modules have ended. Then the console exits, unless --stay or --for is given.

Commands on standard input wait until a module has connected. On a terminal you can
edit a line; the arrow keys bring earlier lines back, and the Tab key completes words
and names of modules. "exit" and Ctrl-D leave, "stop" asks first, unknown words are not
sent, and "help" explains more. In a script the console stays after the end of standard
input, until the time of --for is over or SIGINT or SIGTERM comes, and exits with
status 0. The bus sockets are in the temporary folder, so TMPDIR must be the same for
all processes on the bus.

With --json each event is one line with a JSON object: time, event ("listening" or
"attached", "connected", "renamed", "disconnected" or "action") and module, and for an
action also action, id, message and base64, which is the data.)";

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

int runConsole(ModuleBus &bus, const AdminOptions &options)
{
    QTimer exitTimer;
    exitTimer.setSingleShot(true);
    exitTimer.setInterval(std::chrono::seconds(options.staySeconds));
    exitTimer.callOnTimeout([] { QCoreApplication::exit(0); });

    std::optional<TypedCommands> typed;
    CommandRun run(bus, options.commands, options.stepLimitSeconds);
    QObject::connect(&run, &CommandRun::failed, [] { QCoreApplication::exit(failureStatus); });
    QObject::connect(&run, &CommandRun::done, &bus, [&] {
        if (options.leavesAfterwards)
            exitTimer.start();
        if (!options.leavesAfterwards || options.staySeconds > 0)
            typed.emplace(bus);
    });
    endLoopOnStopSignals(&bus);
    QTimer::singleShot(0, &run, &CommandRun::start);
    return QCoreApplication::exec();
}

int runAttached(AttachedBus &bus, const AdminOptions &options)
{
    const AdminEvents events(bus, options.asJson);
    const QStringList names = namesOf(bus);
    events.show(u"Attached to %1; connected: %2"_s.arg(
                    options.name, names.isEmpty() ? u"no module"_s : names.join(u", "_s)),
        "attached", {{u"name"_s, options.name}, {u"modules"_s, QJsonArray::fromStringList(names)}});
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

int runServer(const AdminOptions &options)
{
    AdminServer server;
    const AdminEvents events(server, options.asJson);
    if (const QString problem = server.listen(options.name); !problem.isEmpty())
        return failToListen(options.name, problem);
    events.show(u"Listening as %1, waiting for modules; they end when this console leaves"_s.arg(
                    options.name),
        "listening", {{u"name"_s, options.name}});
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

} // namespace

int runAdmin(const QStringList &arguments)
{
    CommandLine line(u"admin"_s, u"NAME [COMMAND...]"_s, QString::fromLatin1(description));
    addAdminOptions(line);
    AdminOptions options;
    if (!line.parse(arguments, 1) || !readAdminOptions(line, options))
        return line.exitStatus();

    if (options.serves)
        return runService(options.name, options.asJson);
    AttachedBus bus;
    switch (bus.attach(options.name)) {
    case AttachedBus::Outcome::Attached:
        return runAttached(bus, options);
    case AttachedBus::Outcome::Failed:
        complain(u"admin: cannot attach to %1: %2"_s.arg(options.name, bus.problem()));
        return failureStatus;
    case AttachedBus::Outcome::NobodyThere:
        break;
    }
    return runServer(options);
}
