#include "AdminServer.h"

#include "BusFrame.h"
#include "BusName.h"
#include "Output.h"
#include "TConnector.h"

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 maxUnreadBytes = 1'048'576; // commands that wait for one module to read them

} // namespace

AdminServer::AdminServer()
    : connector(new TConnector(this))
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
    ownName = name;
    return listenOnBus(*server, name);
}

QString AdminServer::repair()
{
    return keepListening(*server, ownName);
}

void AdminServer::accept(TMyLocalSocket *socket)
{
    keys.insert(socket, ++lastKey);
    connector->newInConnection(socket);
    // The connector was connected first: it has read the frames when this runs.
    connect(socket, &TMyLocalSocket::NewData, this, &AdminServer::readName);
    connect(
        socket, &QLocalSocket::disconnected, this, [this, socket] { noteLoss(keys.take(socket)); });
}

void AdminServer::readName(TMyLocalSocket *socket)
{
    // A command that goes out in between may have ended the connection.
    if (keys.contains(socket) && socket->state() == QLocalSocket::ConnectedState
        && socket->name != rawNameOf(keys.value(socket)))
        noteName(keys.value(socket), socket->name);
}

void AdminServer::noteAction(const QByteArray &action, const QByteArray &message,
    const QByteArray &data, int id, TMyLocalSocket *socket)
{
    readName(socket); // its name frame may have come in the same piece
    Q_EMIT actionCame(keys.value(socket), {action, message, data, id});
}

qint32 AdminServer::send(const QByteArray &command, const QByteArray &name)
{
    const qint32 id = ids.next();
    sendAs(id, command, name);
    return id;
}

void AdminServer::sendAs(qint32 id, const QByteArray &command, const QByteArray &name)
{
    const QByteArray frame = BusFrame::makeCommand(command, QByteArray(""), id);
    const QList<Key> receivers = modules(name);
    for (const Key key : receivers) {
        TMyLocalSocket *const module = keys.key(key);
        if (!module)
            continue; // it was lost while another was written to
        if (module->bytesToWrite() > maxUnreadBytes) {
            Q_EMIT trouble(
                u"%1 does not read: it misses \"%2\""_s.arg(nameOf(key), printable(command)));
            continue;
        }
        module->write(frame);
        module->flush();
    }
}
