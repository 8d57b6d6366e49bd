#pragma once

#include "LineCutter.h"
#include "LineEditor.h"

#include <QByteArrayList>
#include <QObject>
#include <QSocketNotifier>

#include <optional>

class ModuleBus;
struct AdminCommand;

// Sends the commands that come on standard input; on a terminal their lines can be edited. They
// wait while no module is connected. A script that sends too many waits in its own write.
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
    std::optional<LineEditor> editor; // on a terminal,
    QSocketNotifier input; // otherwise
    bool inputEnded = false;
    LineCutter lines;
    QByteArrayList waitingCommands;
    QByteArray commandToConfirm; // until the person answers
};
