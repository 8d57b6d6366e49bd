#pragma once

#include <QLocalSocket>
#include <QString>

class QLocalServer;

// Why no socket can have this bus name; empty if one can.
[[nodiscard]] QString busNameProblem(const QString &name);

// Why TMPDIR makes the bus lie where nobody expects it; empty if it does not.
[[nodiscard]] QString busFolderProblem();

// Why nobody could be reached under the bus name, after an attempt that has ended with this error.
[[nodiscard]] QString connectionProblem(const QString &name, QLocalSocket::LocalSocketError error);

// The socket file of a bus name. It lies in the temporary folder, which TMPDIR moves.
[[nodiscard]] QString busSocketPath(const QString &name);

// Listens under a bus name, for this user and the group. Returns why it cannot, or nothing. It
// removes only a socket file that a dead server has left behind.
[[nodiscard]] QString listenOnBus(QLocalServer &server, const QString &name);
// Listens again if somebody has removed the server's socket file; connections stay. Returns why it
// cannot, or nothing.
[[nodiscard]] QString keepListening(QLocalServer &server, const QString &name);
