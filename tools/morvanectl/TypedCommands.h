#pragma once

#include "LineEditor.h"

#include <QByteArrayList>
#include <QObject>
#include <QSocketNotifier>

#include <optional>

class AdminServer;
struct AdminCommand;

// The commands on standard input; on a terminal its lines can be edited. They wait while no module
// is there, and from a script, beyond a limit, outside of this process.
//
// Owner:   the subcommand, for the time of its event loop.
class TypedCommands : public QObject
{
    Q_OBJECT
public:
    // The id of the first command; each has the next one.
    TypedCommands(AdminServer &server, qint32 firstId);

private:
    void read();
    void takeLine(const QByteArray &line);
    void takeTyped(const QByteArray &line);
    [[nodiscard]] QStringList candidates(const QString &before) const;
    void askToStop(const AdminCommand &command);
    void answer(const QString &line);
    void sendWaiting();
    void send(const QByteArray &line);

    AdminServer &server;
    std::optional<LineEditor> editor; // on a terminal,
    QSocketNotifier input; // otherwise
    bool ended = false; // the input
    QByteArray unfinished; // line
    bool discarding = false; // the rest of a line that is too long
    QByteArrayList waiting;
    QByteArray asked; // the command that ends modules and waits for a yes
    qint32 id; // of the next command
};
