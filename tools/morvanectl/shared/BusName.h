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

// Listens under a bus name, for this user and the group. Otherwise the reason why not: only a
// socket file that a server has left behind is removed.
[[nodiscard]] QString listenOnBus(QLocalServer &server, const QString &name);
// Listens again if the server has lost its socket file, which makes nobody else fail. The reason if
// that is not possible.
[[nodiscard]] QString keepListening(QLocalServer &server, const QString &name);
