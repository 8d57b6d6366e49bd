#include "AdminServer.h"

#include "BusFrame.h"
#include "BusName.h"
#include "Output.h"
#include "TConnector.h"

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 maxUnreadBytesOfModule = 1'048'576;

} // namespace

AdminServer::AdminServer()
    : server(new TMyLocalServer(this))
{
    connect(server, &TMyLocalServer::newConnection, this, &AdminServer::accept);
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
    connect(socket, &TMyLocalSocket::NewData, this, &AdminServer::read);
    connect(socket, &QLocalSocket::errorOccurred, socket, &QLocalSocket::abort);
    connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
        socket->deleteLater();
        noteLoss(keys.take(socket));
    });
}

void AdminServer::read(TMyLocalSocket *socket)
{
    // A signal may lead to a command, and sending it may end the connection.
    BusFrame frame;
    while (socket->isOpen() && socket->takeFrame(frame)) {
        const Key key = keys.value(socket);
        if (frame.kind == BusFrame::Name && frame.name != rawNameOf(key))
            noteName(key, frame.name);
        else if (frame.kind == BusFrame::Action)
            Q_EMIT actionCame(key, {frame.name, frame.message, frame.data, frame.id});
    }
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
            continue; // lost while writing to another one
        if (module->bytesToWrite() > maxUnreadBytesOfModule) {
            Q_EMIT trouble(u"%1 does not read its commands: \"%2\" is not sent to it"_s.arg(
                nameOf(key), printable(command)));
            continue;
        }
        module->write(frame);
        module->flush();
    }
}
