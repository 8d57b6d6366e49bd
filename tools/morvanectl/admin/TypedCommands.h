#pragma once

#include "LineCutter.h"
#include "LineEditor.h"

#include <QByteArrayList>
#include <QObject>
#include <QSocketNotifier>

#include <optional>

class ModuleBus;
struct AdminCommand;

// Sends the commands from standard input, whose lines can be edited on a terminal. Commands wait
// until a module is connected. If many wait, reading pauses, so that a script blocks in its write.
class TypedCommands : public QObject
{
    Q_OBJECT
public:
    explicit TypedCommands(ModuleBus &bus);

private:
    void read();
    void takeLine(const QByteArray &line);
    void takeTyped(const QByteArray &line);
    [[nodiscard]] QStringList candidates(const QString &before) const;
    void askToStop(const AdminCommand &command);
    void answer(const QString &line);
    void sendWaiting();
    void send(const QByteArray &line);

    ModuleBus &bus;
    std::optional<LineEditor> terminalEditor;
    QSocketNotifier pipeInput;
    bool inputEnded = false;
    LineCutter lines;
    QByteArrayList waitingCommands;
    QByteArray commandToConfirm;
};
