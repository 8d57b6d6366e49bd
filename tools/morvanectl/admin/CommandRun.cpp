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
    ModuleBus &moduleBus, const QList<AdminCommand> &commandList, int stepLimitSeconds)
    : bus(moduleBus)
    , commandsToSend(commandList)
{
    stepTimer.setSingleShot(true);
    stepTimer.setInterval(std::chrono::seconds(stepLimitSeconds));
    connect(&stepTimer, &QTimer::timeout, this, &CommandRun::giveUp);
    connect(&bus, &ModuleBus::moduleCame, this, &CommandRun::proceed);
    connect(&bus, &ModuleBus::moduleLeft, this, &CommandRun::noteLoss);
    connect(&bus, &ModuleBus::actionCame, this, &CommandRun::noteAction);
}

void CommandRun::start()
{
    stepTimer.start();
    proceed();
}

void CommandRun::proceed()
{
    while (!finished && awaitedModules.isEmpty()) {
        if (commandsToSend.isEmpty()) {
            finished = true;
            stepTimer.stop();
            Q_EMIT done();
            return;
        }
        if (bus.modules(commandsToSend.constFirst().module).isEmpty())
            return; // until the next module connects
        sendNext();
    }
}

void CommandRun::sendNext()
{
    currentCommand = commandsToSend.takeFirst();
    const QList<qint64> modules = bus.modules(currentCommand.module);
    if (currentCommand.name == "About" || currentCommand.name == "QuitSignal")
        awaitedModules = QSet(modules.begin(), modules.end());
    stepTimer.start();
    currentId = bus.send(currentCommand.name, currentCommand.module);
}

void CommandRun::noteAction(qint64 module, const ModuleAction &action)
{
    if (currentCommand.name == "About" && action.name == "About" && action.id == currentId
        && awaitedModules.remove(module))
        proceed();
}

void CommandRun::noteLoss(qint64 module)
{
    if (!awaitedModules.remove(module))
        return;
    if (currentCommand.name == "About") {
        complain(u"admin: a module disconnected without an answer to \"About\""_s);
        finished = true;
        Q_EMIT failed();
    }
    proceed();
}

void CommandRun::giveUp()
{
    const QString seconds = counted(stepTimer.interval() / 1'000, u"second"_s);
    finished = true;
    if (awaitedModules.isEmpty())
        complain(u"admin: %1 has connected within %2"_s.arg(
            whose(commandsToSend.value(0).module), seconds));
    for (const qint64 module : std::as_const(awaitedModules))
        complain(u"admin: %1: \"%2\" has had no effect within %3"_s.arg(
            bus.nameOf(module), printable(currentCommand.name), seconds));
    Q_EMIT failed();
}
