#include "CommandRun.h"

#include "AdminServer.h"
#include "Output.h"
#include "TConnector.h"

#include <chrono>

using namespace Qt::StringLiterals;

namespace {

QString whose(const QByteArray &module)
{
    return module.isEmpty() ? u"no module"_s : u"no module \"%1\""_s.arg(printable(module));
}

} // namespace

CommandRun::CommandRun(
    AdminServer &adminServer, const QList<AdminCommand> &commandList, int waitSeconds)
    : server(adminServer)
    , commands(commandList)
{
    limit.setSingleShot(true);
    limit.setInterval(std::chrono::seconds(waitSeconds));
    connect(&limit, &QTimer::timeout, this, &CommandRun::giveUp);
    connect(&server, &AdminServer::moduleCame, this, &CommandRun::proceed);
    connect(&server, &AdminServer::moduleLeft, this, &CommandRun::noteLoss);
    connect(&server, &AdminServer::actionCame, this, &CommandRun::noteAction);
}

void CommandRun::start()
{
    limit.start();
    proceed();
}

void CommandRun::proceed()
{
    while (!finished && awaited.isEmpty()) {
        if (commands.isEmpty()) {
            finished = true;
            limit.stop();
            Q_EMIT done();
            return;
        }
        if (server.modules(commands.constFirst().module).isEmpty())
            return; // the next one that connects gets the rest
        sendNext();
    }
}

void CommandRun::sendNext()
{
    current = commands.takeFirst();
    const QList<TMyLocalSocket *> modules = server.modules(current.module);
    if (current.name == "About" || current.name == "QuitSignal")
        awaited = QSet(modules.begin(), modules.end());
    limit.start();
    server.send(current.name, ++id, current.module);
}

void CommandRun::noteAction(const QByteArray &action, int answeredId, TMyLocalSocket *module)
{
    if (current.name == "About" && action == "About" && answeredId == id && awaited.remove(module))
        proceed();
}

void CommandRun::noteLoss(TMyLocalSocket *module)
{
    if (!awaited.remove(module))
        return;
    if (current.name == "About") {
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
        complain(
            u"admin: %1 has connected within %2"_s.arg(whose(commands.value(0).module), seconds));
    for (TMyLocalSocket *module : std::as_const(awaited))
        complain(u"admin: %1: no effect of \"%2\" within %3"_s.arg(
            server.nameOf(module), printable(current.name), seconds));
    Q_EMIT failed();
}
