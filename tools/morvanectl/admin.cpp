#include "AdminServer.h"
#include "BusName.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "StopSignals.h"
#include "TConnector.h"

#include <QCoreApplication>
#include <QSet>
#include <QSocketNotifier>
#include <QTimer>

#include <chrono>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestCommand = 4'096; // bytes of one typed line
constexpr qsizetype mostWaiting = 1'000; // commands typed before a module is there

constexpr char description[] =
    R"(Listens on the local bus as administration server NAME, shows every module that
connects and every action that it sends, and sends commands to all of them.

Every argument COMMAND and every line on standard input is one command:
  About                              the module describes itself
  Input_Data_On, Input_Data_Off      reports of records and link events
  Watch_Arrow_On, Watch_Arrow_Off    reports of every data frame on the bus
  QuitSignal                         the module ends with status 0
Any other text is sent too; modules ignore what they do not know.

COMMANDs as arguments are sent in order, each to all modules, once the first module
has connected. "About" waits for the answers, "QuitSignal" until the modules have
gone. Then the server leaves, unless --stay or --for keep it.

  NOTE: a module ends with status 5 when its administration server goes.

Commands on standard input that come before any module wait for the first one. The end
of standard input ends the server only on a terminal; in a script it stays until
--for is over, SIGINT or SIGTERM, each with status 0. The bus lies in the temporary
folder: TMPDIR must be the same for all its processes.)";

// Carries out the commands that were given as arguments, one after the other.
//
// Owner:   the subcommand, for the time of its event loop.
// Errors:  a step that takes too long is said and makes failed() come.
class CommandRun : public QObject
{
    Q_OBJECT
public:
    CommandRun(AdminServer &adminServer, const QStringList &commandTexts, int waitSeconds)
        : server(adminServer)
        , commands(commandTexts)
    {
        limit.setSingleShot(true);
        limit.setInterval(std::chrono::seconds(waitSeconds));
        connect(&limit, &QTimer::timeout, this, &CommandRun::giveUp);
        connect(&server, &AdminServer::moduleCame, this, &CommandRun::proceed);
        connect(&server, &AdminServer::moduleLeft, this, &CommandRun::noteLoss);
        connect(&server, &AdminServer::actionCame, this, &CommandRun::noteAction);
    }

    void start()
    {
        limit.start();
        proceed();
    }

Q_SIGNALS:
    void done();
    void failed();

private:
    void proceed();
    void noteAction(const QByteArray &action, int answeredId, TMyLocalSocket *module);
    void noteLoss(TMyLocalSocket *module);
    void giveUp();

    AdminServer &server;
    QStringList commands; // still to be sent
    QString current; // the command whose effect is awaited
    qint32 id = 0; // of the current command
    QSet<TMyLocalSocket *> awaited; // modules that the current command still waits for
    bool finished = false;
    QTimer limit; // of one step
};

void CommandRun::proceed()
{
    while (!finished && awaited.isEmpty()) {
        if (commands.isEmpty()) {
            finished = true;
            limit.stop();
            Q_EMIT done();
            return;
        }
        const QList<TMyLocalSocket *> modules = server.modules();
        if (modules.isEmpty())
            return; // the next one that connects gets the rest
        current = commands.takeFirst();
        if (current == "About"_L1 || current == "QuitSignal"_L1)
            awaited = QSet(modules.begin(), modules.end());
        limit.start();
        server.sendToAll(current.toUtf8(), ++id);
    }
}

void CommandRun::noteAction(const QByteArray &action, int answeredId, TMyLocalSocket *module)
{
    if (current == "About"_L1 && action == "About" && answeredId == id && awaited.remove(module))
        proceed();
}

void CommandRun::noteLoss(TMyLocalSocket *module)
{
    if (!awaited.remove(module))
        return;
    if (current == "About"_L1) {
        complain(u"admin: a module left without an answer to \"About\""_s);
        finished = true;
        Q_EMIT failed();
    }
    proceed();
}

void CommandRun::giveUp()
{
    const QString seconds = counted(limit.interval() / 1'000, u"second"_s);
    finished = true;
    if (awaited.isEmpty())
        complain(u"admin: no module has connected within %1"_s.arg(seconds));
    for (TMyLocalSocket *module : std::as_const(awaited))
        complain(u"admin: %1: no effect of \"%2\" within %3"_s.arg(
            server.nameOf(module), current, seconds));
    Q_EMIT failed();
}

// The commands on standard input. They wait while no module is there, and beyond a limit they wait
// outside of this process.
//
// Owner:   the subcommand, for the time of its event loop.
class TypedCommands : public QObject
{
    Q_OBJECT
public:
    TypedCommands(AdminServer &adminServer, qint32 firstId)
        : server(adminServer)
        , input(STDIN_FILENO, QSocketNotifier::Read)
        , id(firstId)
    {
        connect(&input, &QSocketNotifier::activated, this, &TypedCommands::read);
        connect(&server, &AdminServer::moduleCame, this, &TypedCommands::sendWaiting);
    }

private:
    void read();
    void takeLine(const QByteArray &line);
    void sendWaiting();

    AdminServer &server;
    QSocketNotifier input;
    bool ended = false;
    QByteArray unfinished; // line
    bool discarding = false; // the rest of a line that is too long
    QByteArrayList waiting;
    qint32 id; // of the next command
};

void TypedCommands::read()
{
    char bytes[longestCommand];
    const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) {
        ended = true;
        input.setEnabled(false);
        takeLine(std::exchange(unfinished, {}));
        if (::isatty(STDIN_FILENO))
            QCoreApplication::exit(0);
        return;
    }
    unfinished.append(bytes, count);
    for (qsizetype end; (end = unfinished.indexOf('\n')) >= 0; unfinished.remove(0, end + 1))
        takeLine(unfinished.left(end));
    if (unfinished.size() <= longestCommand)
        return;
    complain(u"admin: a line of more than %1 bytes is no command"_s.arg(longestCommand));
    discarding = true;
    unfinished.clear();
}

void TypedCommands::takeLine(const QByteArray &line)
{
    const QByteArray command = line.trimmed();
    if (std::exchange(discarding, false) || command.isEmpty())
        return;
    waiting.append(command);
    if (server.modules().isEmpty())
        complain(u"admin: no module is connected, \"%1\" waits for one"_s.arg(printable(command)));
    sendWaiting();
}

void TypedCommands::sendWaiting()
{
    while (!waiting.isEmpty() && !server.modules().isEmpty())
        server.sendToAll(waiting.takeFirst(), id++);
    input.setEnabled(!ended && waiting.size() < mostWaiting);
}

void warnOfOrphans(const AdminServer &server)
{
    QStringList names;
    const QList<TMyLocalSocket *> modules = server.modules();
    for (TMyLocalSocket *module : modules)
        names += server.nameOf(module);
    if (!names.isEmpty())
        complain(u"admin: leaving; with their administration server gone these modules end with "
                 "status 5: "_s
            + names.join(u", "_s));
}

struct AdminOptions
{
    QStringList commands;
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
            typed.emplace(server, qint32(options.commands.size() + 1));
    });
    endLoopOnStopSignals(&server);
    QTimer::singleShot(0, &run, &CommandRun::start);
    const int status = QCoreApplication::exec();
    warnOfOrphans(server);
    return status;
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
    if (const std::optional<int> status = line.parse(arguments, 1))
        return *status;

    const QString name = line.positionals().constFirst();
    AdminOptions options;
    options.commands = line.positionals().sliced(1);
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
    if (const QString problem = busNameProblem(name); !problem.isEmpty())
        return line.wrongUsage(u"\"%1\": %2."_s.arg(name, problem));

    AdminServer server;
    if (const QString problem = server.listen(name); !problem.isEmpty()) {
        complain(u"admin: cannot listen as %1: %2"_s.arg(name, problem));
        return failureStatus;
    }
    say(timeStamp() + u"  Listening as %1, waiting for modules"_s.arg(name));
    return serve(server, options);
}

#include "admin.moc"
