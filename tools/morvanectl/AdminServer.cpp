#include "AdminServer.h"

#include "BusFrame.h"
#include "BusName.h"
#include "Output.h"
#include "TConnector.h"

#include <QFile>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

constexpr mode_t othersMask = 0007; // the user and the group may connect
constexpr qint64 maxUnreadBytes = 1'048'576; // commands that wait for one module to read them

// Only the socket file that a server has left behind may go. Whatever else bears the name stays.
QString clearName(const QString &name)
{
    QLocalSocket probe;
    probe.connectToServer(name);
    if (probe.state() != QLocalSocket::UnconnectedState)
        return u"a live server has this name"_s;
    if (probe.error() == QLocalSocket::ServerNotFoundError)
        return {};
    const QString path = busSocketPath(name);
    struct stat info;
    if (probe.error() != QLocalSocket::ConnectionRefusedError
        || ::lstat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISSOCK(info.st_mode))
        return u"%1 is in the way: %2"_s.arg(path, probe.errorString());
    QLocalServer::removeServer(name);
    return {};
}

} // namespace

AdminServer::AdminServer(bool asJson)
    : events(asJson)
    , connector(new TConnector(this))
    , server(new TMyLocalServer(this))
{
    connect(server, &TMyLocalServer::newConnection, this, &AdminServer::accept);
    connect(connector, &TConnector::NewAction, this, &AdminServer::noteAction);
}

// The sockets report their end while they are destroyed, when nobody is left to hear of it.
AdminServer::~AdminServer()
{
    for (TMyLocalSocket *socket : connector->incoming())
        socket->disconnect(this);
}

QString AdminServer::listen(const QString &name)
{
    const QString problem = clearName(name);
    if (!problem.isEmpty())
        return problem;
    // The modules of a service have a user of their own, and this one's group in common.
    const mode_t mask = ::umask(othersMask);
    const bool listens = server->listen(name);
    ::umask(mask);
    if (listens) {
        events.listening(name);
        return {};
    }
    return u"%1 (%2)"_s.arg(server->errorString(), busSocketPath(name));
}

QString AdminServer::nameOf(TMyLocalSocket *module) const
{
    return names.contains(module) ? printable(names.value(module)) : u"(no name yet)"_s;
}

void AdminServer::accept(TMyLocalSocket *socket)
{
    connector->newInConnection(socket);
    // The connector was connected first: it has read the frames when this runs.
    connect(socket, &TMyLocalSocket::NewData, this, &AdminServer::noteName);
    connect(socket, &QLocalSocket::disconnected, this, [this, socket] { noteLoss(socket); });
}

void AdminServer::noteName(TMyLocalSocket *socket)
{
    const bool wasKnown = names.contains(socket);
    if (socket->state() != QLocalSocket::ConnectedState || socket->name == names.value(socket))
        return;
    const QByteArray before = names.value(socket);
    names.insert(socket, socket->name);
    if (wasKnown)
        return events.renamed(socket->name, before);
    events.connected(socket->name);
    Q_EMIT moduleCame();
}

void AdminServer::noteAction(const QByteArray &action, const QByteArray &message,
    const QByteArray &data, int id, TMyLocalSocket *socket)
{
    noteName(socket); // its name frame may have come in the same piece
    events.action(names.value(socket, "(no name yet)"), action, message, data, id);
    Q_EMIT actionCame(action, id, socket);
}

void AdminServer::noteLoss(TMyLocalSocket *socket)
{
    if (!names.contains(socket))
        return;
    events.disconnected(names.take(socket));
    Q_EMIT moduleLeft(socket);
}

void AdminServer::send(const QByteArray &command, qint32 id, const QByteArray &name)
{
    const QByteArray frame = BusFrame::makeCommand(command, QByteArray(""), id);
    const QList<TMyLocalSocket *> receivers = modules(name);
    for (TMyLocalSocket *module : receivers) {
        if (!names.contains(module))
            continue; // it was lost while another was written to
        if (module->bytesToWrite() > maxUnreadBytes) {
            complain(u"%1 does not read: it misses \"%2\""_s.arg(
                nameOf(module), QString::fromUtf8(command)));
            continue;
        }
        module->write(frame);
        module->flush();
    }
}
