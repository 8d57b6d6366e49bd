#include "ConsoleLink.h"

#include "AdminServer.h"
#include "ControlProtocol.h"
#include "ModuleEvent.h"

#include <QJsonDocument>
#include <QLocalSocket>

#include <pwd.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 maxUnreadBytes = 16'777'216;

QString ownerOf(const QLocalSocket &socket)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(int(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return u"unknown"_s;
    const passwd *const user = ::getpwuid(peer.uid);
    return u"user %1, process %2"_s.arg(
        user ? QString::fromLocal8Bit(user->pw_name) : QString::number(peer.uid),
        QString::number(peer.pid));
}

// Returns why the object is not a command; empty if it is.
QString problemWith(const QJsonObject &object, const CommandIds &ids)
{
    if (object[u"command"].toString().isEmpty())
        return u"\"command\" is missing or not a string"_s;
    if (!ids.contains(object[u"id"].toInteger()))
        return u"\"id\" is not a number from %1 to %2"_s.arg(
            QString::number(ids.first()), QString::number(ids.last()));
    if (object.contains(u"module") && !object[u"module"].isString())
        return u"\"module\" is not a string"_s;
    return {};
}

} // namespace

ConsoleLink::ConsoleLink(QLocalSocket *consoleSocket, AdminServer &server, CommandIds idRange)
    : socket(consoleSocket)
    , bus(server)
    , ids(idRange)
    , owner(ownerOf(*consoleSocket))
    , lines(ControlProtocol::longestCommandLine)
{
    socket->setParent(this);
    socket->setReadBufferSize(ControlProtocol::longestCommandLine);
    connect(socket, &QLocalSocket::readyRead, this, &ConsoleLink::read);
    connect(socket, &QLocalSocket::bytesWritten, this, &ConsoleLink::sayMissed);
    connect(socket, &QLocalSocket::disconnected, this, &ConsoleLink::ended);
}

void ConsoleLink::greet(const QString &serverName)
{
    tell(ModuleEvent::line(ModuleEvent::make("attached",
        {{u"name"_s, serverName}, {u"firstId"_s, ids.first()}, {u"lastId"_s, ids.last()},
            {u"modules"_s, modules()}})));
}

void ConsoleLink::refuse(const QString &reason)
{
    sayError(reason);
    socket->disconnectFromServer(); // after the line has been written
}

qint64 ConsoleLink::unreadBytes() const
{
    return socket->bytesToWrite();
}

bool ConsoleLink::isKeepingUp() const
{
    return missedEvents == 0 && unreadBytes() <= maxUnreadBytes;
}

void ConsoleLink::tell(const QByteArray &line)
{
    socket->write(line);
}

// Lists the connected modules too, because the missed events may have changed them.
void ConsoleLink::sayMissed()
{
    if (missedEvents == 0 || unreadBytes() > 0)
        return;
    socket->write(ModuleEvent::line(ModuleEvent::make(
        "missed", {{u"count"_s, std::exchange(missedEvents, 0)}, {u"modules"_s, modules()}})));
}

void ConsoleLink::sayError(const QString &text)
{
    if (!isKeepingUp())
        return miss();
    tell(ModuleEvent::line(ModuleEvent::make("error", {{u"message"_s, text}})));
}

void ConsoleLink::read()
{
    if (!lines.feed(socket->readAll(), [this](const QByteArray &line) { take(line); }))
        sayError(u"a line has more than %1 bytes"_s.arg(ControlProtocol::longestCommandLine));
}

void ConsoleLink::take(const QByteArray &line)
{
    const QJsonDocument document = QJsonDocument::fromJson(line);
    if (!document.isObject())
        return sayError(u"a line is not a JSON object"_s);
    const QJsonObject object = document.object();
    if (const QString problem = problemWith(object, ids); !problem.isEmpty())
        return sayError(problem);
    const QByteArray command = object[u"command"].toString().toUtf8();
    const QByteArray module = object[u"module"].toString().toUtf8();
    if (bus.modules(module).isEmpty())
        return sayError(u"no module for \"%1\" is connected"_s.arg(QString::fromUtf8(command)));
    Q_EMIT commandTaken(command, module);
    bus.sendAs(qint32(object[u"id"].toInteger()), command, module);
}

QJsonArray ConsoleLink::modules() const
{
    QJsonArray list;
    for (const qint64 module : bus.modules())
        list.append(QJsonObject{
            {u"key"_s, module}, {u"module"_s, QString::fromUtf8(bus.rawNameOf(module))}});
    return list;
}
