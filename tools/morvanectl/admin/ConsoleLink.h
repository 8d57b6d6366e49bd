#pragma once

#include "CommandIds.h"
#include "LineCutter.h"

#include <QJsonArray>
#include <QObject>
#include <QString>

class AdminServer;
class QLocalSocket;

// One console that is attached to the administration server: takes its commands, tells it events.
//
// Owner:   ControlServer, until ended().
// Errors:  answers a line that is not a command with an "error". A console that does
//          not read misses events, and is told how many once it reads again.
class ConsoleLink : public QObject
{
    Q_OBJECT
public:
    // Takes the socket over. Commands of the console bear ids of this range.
    ConsoleLink(QLocalSocket *socket, AdminServer &bus, CommandIds ids);

    // The first line: what the console needs to know of the server with this bus name.
    void greet(const QString &serverName);
    // Whether it has read nearly all that it was told.
    [[nodiscard]] bool isKeepingUp() const;
    // One line, its end included.
    void tell(const QByteArray &line);
    // The console does not hear of an event for now.
    void miss() { ++missedEvents; }
    // The reason why there can be no attachment.
    void refuse(const QString &reason);

    [[nodiscard]] qint64 unreadBytes() const;
    // The user and the process at the other end.
    [[nodiscard]] QString who() const { return owner; }

Q_SIGNALS:
    void commandTaken(const QByteArray &command, const QByteArray &module);
    void ended();

private:
    void read();
    void take(const QByteArray &line);
    void sayError(const QString &text);
    void sayMissed();
    [[nodiscard]] QJsonArray modules() const;

    QLocalSocket *socket;
    AdminServer &bus;
    const CommandIds ids;
    const QString owner;
    LineCutter lines;
    qint64 missedEvents = 0;
};
