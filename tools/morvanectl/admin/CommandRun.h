#pragma once

#include "AdminCommand.h"

#include <QList>
#include <QObject>
#include <QSet>
#include <QTimer>

class ModuleBus;
struct ModuleAction;

// Carries out the commands from the arguments, one after the other. Reports a step that takes too
// long and emits failed().
class CommandRun : public QObject
{
    Q_OBJECT
public:
    // The limit holds for a module to connect, and for the effect of each command.
    CommandRun(ModuleBus &bus, const QList<AdminCommand> &commands, int stepLimitSeconds);

    void start();

Q_SIGNALS:
    void done();
    void failed();

private:
    void proceed();
    void sendNext();
    void noteAction(qint64 module, const ModuleAction &action);
    void noteLoss(qint64 module);
    void giveUp();

    ModuleBus &bus;
    QList<AdminCommand> commandsToSend;
    AdminCommand currentCommand;
    qint32 currentId = 0;
    QSet<qint64> awaitedModules;
    bool finished = false;
    QTimer stepTimer;
};
