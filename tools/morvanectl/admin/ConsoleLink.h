#pragma once

#include "CommandIds.h"
#include "LineCutter.h"

#include <QJsonArray>
#include <QObject>
#include <QString>

class AdminServer;
class QLocalSocket;

// The administration server's connection to one attached console: takes commands and sends events.
//
// Errors:  answers a line that is not a command with an "error". A console that does not read
//          misses events, and is told their number when it reads again.
class ConsoleLink : public QObject
{
    Q_OBJECT
public:
    // Takes over the socket. `ids` is the range for the console's commands.
    ConsoleLink(QLocalSocket *socket, AdminServer &bus, CommandIds ids);

    // Sends the first line, which introduces the server with this bus name.
    void greet(const QString &serverName);
    // Returns whether the console has missed nothing and little is unread.
    [[nodiscard]] bool isKeepingUp() const;
    // Sends one line, which includes its line feed.
    void tell(const QByteArray &line);
    // Counts an event that the console is not told.
    void miss() { ++missedEvents; }
    // Tells why the console cannot attach, and closes the connection.
    void refuse(const QString &reason);

    [[nodiscard]] qint64 unreadBytes() const;
    // Returns the user and the process of the console.
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
