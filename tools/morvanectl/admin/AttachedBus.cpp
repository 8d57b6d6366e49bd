#include "AttachedBus.h"

#include "BusName.h"
#include "ControlProtocol.h"
#include "Output.h"

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

using namespace Qt::StringLiterals;

namespace {

constexpr int greetingLimit = 5'000; // milliseconds

} // namespace

AttachedBus::AttachedBus()
    : lines(ControlProtocol::longestEventLine)
{
}

// The socket emits signals while it is destroyed.
AttachedBus::~AttachedBus()
{
    socket.disconnect(this);
}

AttachedBus::Outcome AttachedBus::fail(const QString &text)
{
    reason = text;
    return Outcome::Failed;
}

AttachedBus::Outcome AttachedBus::attach(const QString &serverName)
{
    const QString name = ControlProtocol::socketName(serverName);
    socket.connectToServer(name);
    if (!socket.waitForConnected(greetingLimit)) {
        if (socket.error() == QLocalSocket::ServerNotFoundError
            || socket.error() == QLocalSocket::ConnectionRefusedError)
            return Outcome::NobodyThere;
        return fail(socket.error() == QLocalSocket::SocketAccessError
                ? u"permission denied for %1"_s.arg(busSocketPath(name))
                : u"%1: %2"_s.arg(busSocketPath(name), socket.errorString()));
    }
    const QJsonObject greeting = readGreeting();
    if (greeting[u"event"] == "error"_L1)
        return fail(greeting[u"message"].toString());
    if (greeting[u"event"] != "attached"_L1)
        return fail(u"%1 does not answer like a control socket"_s.arg(busSocketPath(name)));
    ids = CommandIds::startingAt(greeting[u"firstId"].toInt(1));
    takeModules(greeting);
    connect(&socket, &QLocalSocket::readyRead, this, &AttachedBus::read);
    connect(&socket, &QLocalSocket::disconnected, this, &AttachedBus::lost);
    // No signal comes for what has already arrived.
    QMetaObject::invokeMethod(this, &AttachedBus::read, Qt::QueuedConnection);
    if (socket.state() != QLocalSocket::ConnectedState)
        QMetaObject::invokeMethod(this, &AttachedBus::lost, Qt::QueuedConnection);
    return Outcome::Attached;
}

QJsonObject AttachedBus::readGreeting()
{
    const QDeadlineTimer deadline(greetingLimit);
    while (!socket.canReadLine() && socket.waitForReadyRead(int(deadline.remainingTime()))) { }
    return QJsonDocument::fromJson(socket.readLine(ControlProtocol::longestEventLine)).object();
}

qint32 AttachedBus::send(const QByteArray &command, const QByteArray &name)
{
    const qint32 id = ids.next();
    QJsonObject object{{u"command"_s, QString::fromUtf8(command)}, {u"id"_s, id}};
    if (!name.isEmpty())
        object.insert(u"module"_s, QString::fromUtf8(name));
    socket.write(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
    socket.flush(); // this process may exit at once
    return id;
}

void AttachedBus::read()
{
    if (!lines.feed(socket.readAll(), [this](const QByteArray &line) { takeLine(line); }))
        Q_EMIT trouble(u"dropped a line of the administration server that is too long"_s);
}

void AttachedBus::takeLine(const QByteArray &line)
{
    const QJsonObject object = QJsonDocument::fromJson(line).object();
    takeEvent(object[u"event"].toString(), object);
}

// Ignores events that a newer server may have.
void AttachedBus::takeEvent(const QString &event, const QJsonObject &object)
{
    const Key key = object[u"key"].toInteger();
    if (event == "connected"_L1 || event == "renamed"_L1) {
        noteName(key, object[u"module"].toString().toUtf8());
    } else if (event == "disconnected"_L1) {
        noteLoss(key);
    } else if (event == "action"_L1) {
        Q_EMIT actionCame(key,
            {object[u"action"].toString().toUtf8(), object[u"message"].toString().toUtf8(),
                QByteArray::fromBase64(object[u"base64"].toString().toLatin1()),
                object[u"id"].toInt(-1)});
    } else if (event == "error"_L1) {
        Q_EMIT trouble(object[u"message"].toString());
    } else if (event == "missed"_L1) {
        Q_EMIT trouble(u"missed %1, which came faster than this console reads"_s.arg(
            counted(object[u"count"].toInteger(), u"event"_s)));
        takeModules(object);
    }
}

void AttachedBus::takeModules(const QJsonObject &object)
{
    QSet<Key> present;
    const QJsonArray list = object[u"modules"].toArray();
    for (const QJsonValue &module : list) {
        present.insert(module[u"key"].toInteger());
        noteName(module[u"key"].toInteger(), module[u"module"].toString().toUtf8());
    }
    const QList<Key> known = modules();
    for (const Key key : known) {
        if (!present.contains(key))
            noteLoss(key);
    }
}
