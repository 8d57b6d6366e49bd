#pragma once

#include <QLocalSocket>
#include <QString>

class QLocalServer;

// Returns why no socket can have this bus name; empty if one can.
[[nodiscard]] QString busNameProblem(const QString &name);

// Returns why TMPDIR puts the bus sockets where nobody expects them; empty if it does not.
[[nodiscard]] QString busFolderProblem();

// Returns why an attempt to connect to the bus name has ended with this error.
[[nodiscard]] QString connectionProblem(const QString &name, QLocalSocket::LocalSocketError error);

// Returns the path of the socket file, which is in the folder TMPDIR or in /tmp.
[[nodiscard]] QString busSocketPath(const QString &name);

// Listens under a bus name, with permission for the user and the group. Removes a socket file that
// a dead server has left behind, but nothing else. Returns why it cannot listen; empty on success.
[[nodiscard]] QString listenOnBus(QLocalServer &server, const QString &name);
// Listens again if somebody has removed the server's socket file. Connections stay. Returns why it
// cannot listen; empty on success.
[[nodiscard]] QString keepListening(QLocalServer &server, const QString &name);
