#pragma once

#include "LineCutter.h"
#include "LineEditor.h"

#include <QByteArrayList>
#include <QObject>
#include <QSocketNotifier>

#include <optional>

class ModuleBus;
struct AdminCommand;

// The commands on standard input; on a terminal its lines can be edited. They wait while no module
// is there, and from a script, beyond a limit, outside of this process.
//
// Owner:   the subcommand, for the time of its event loop.
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
