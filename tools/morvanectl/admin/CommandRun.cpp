#include "CommandRun.h"

#include "ModuleBus.h"
#include "Output.h"

#include <chrono>

using namespace Qt::StringLiterals;

namespace {

QString whose(const QByteArray &module)
{
    return module.isEmpty() ? u"no module"_s : u"no module \"%1\""_s.arg(printable(module));
}

} // namespace

CommandRun::CommandRun(
    ModuleBus &moduleBus, const QList<AdminCommand> &commandList, int waitSeconds)
    : bus(moduleBus)
    , commands(commandList)
{
    limit.setSingleShot(true);
    limit.setInterval(std::chrono::seconds(waitSeconds));
    connect(&limit, &QTimer::timeout, this, &CommandRun::giveUp);
    connect(&bus, &ModuleBus::moduleCame, this, &CommandRun::proceed);
    connect(&bus, &ModuleBus::moduleLeft, this, &CommandRun::noteLoss);
    connect(&bus, &ModuleBus::actionCame, this, &CommandRun::noteAction);
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
        if (bus.modules(commands.constFirst().module).isEmpty())
            return; // the next one that connects gets the rest
        sendNext();
    }
}

void CommandRun::sendNext()
{
    current = commands.takeFirst();
    const QList<qint64> modules = bus.modules(current.module);
    if (current.name == "About" || current.name == "QuitSignal")
        awaited = QSet(modules.begin(), modules.end());
    limit.start();
    id = bus.send(current.name, current.module);
}

void CommandRun::noteAction(qint64 module, const ModuleAction &action)
{
    if (current.name == "About" && action.name == "About" && action.id == id
        && awaited.remove(module))
        proceed();
}

void CommandRun::noteLoss(qint64 module)
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
    for (const qint64 module : std::as_const(awaited))
        complain(u"admin: %1: no effect of \"%2\" within %3"_s.arg(
            bus.nameOf(module), printable(current.name), seconds));
    Q_EMIT failed();
}
