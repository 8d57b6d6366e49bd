#include "Receiver.h"

#include "NameTemplate.h"
#include "Output.h"

#include <QCoreApplication>
#include <QNetworkProxy>
#include <QTcpSocket>

#include <memory>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int mostConnections = 16; // at once; each may hold one unfinished record in memory
constexpr qint64 readBuffer = 1'048'576; // bytes; beyond it the peer waits

// How a body begins. A kind is not told apart from a payload that goes on like a longer kind.
QString beginningOf(const QByteArray &body)
{
    for (const QByteArray &kind : {QByteArray("tempdb"), QByteArray("error")}) {
        if (body.startsWith(kind))
            return QString::fromLatin1(kind) + u"..."_s;
    }
    return u"no known kind"_s;
}

} // namespace

Receiver::Receiver(const ReceiveOptions &receiveOptions)
    : options(receiveOptions)
{
    server.setProxy(QNetworkProxy::NoProxy);
    connect(&server, &QTcpServer::newConnection, this, &Receiver::accept);
}

// The sockets report their end while they are destroyed, when nobody is left to hear of it.
Receiver::~Receiver()
{
    const QList<QTcpSocket *> sockets = server.findChildren<QTcpSocket *>();
    for (QTcpSocket *socket : sockets)
        socket->disconnect(this);
}

bool Receiver::start()
{
    if (!options.directory.isEmpty()
        && !files.open(options.directory, options.nameTemplate, options.overwrite)) {
        complain(u"receive: the folder %1 cannot be used"_s.arg(options.directory));
        return false;
    }
    if (!server.listen(options.address, options.port)) {
        complain(u"receive: cannot listen on %1 port %2: %3"_s.arg(
            options.address.toString(), QString::number(options.port), server.errorString()));
        return false;
    }
    say(timeStamp()
        + u"  Listening on %1 port %2"_s.arg(
            server.serverAddress().toString(), QString::number(server.serverPort())));
    return true;
}

void Receiver::accept()
{
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        const QString peer =
            u"%1 port %2"_s.arg(socket->peerAddress().toString()).arg(socket->peerPort());
        if (openLinks >= mostConnections) {
            sayEvent(u"Refused %1: %2 are open"_s.arg(peer, counted(openLinks, u"connection"_s)));
            delete socket;
            continue;
        }
        ++openLinks;
        ++connections;
        sayEvent(u"Connected: "_s + peer);
        socket->setReadBufferSize(readBuffer);
        const auto link = std::make_shared<Link>();
        link->peer = peer;
        link->reader = LinkRecord::Reader(options.longestRecord);
        watchSilence(*link);
        connect(socket, &QIODevice::readyRead, this, [=, this] { take(socket, *link); });
        connect(socket, &QAbstractSocket::disconnected, this, [=, this] {
            take(socket, *link);
            link->silence.stop();
            sayEnd(*link);
            --openLinks;
            socket->deleteLater();
        });
        take(socket, *link); // what came before anybody listened to the signal
    }
}

void Receiver::watchSilence(Link &link) const
{
    if (options.silence.count() == 0)
        return;
    link.silence.setSingleShot(true);
    link.silence.callOnTimeout([&link, this] {
        link.isSilent = true;
        complain(u"receive: %1 has been silent for %2"_s.arg(
            link.peer, counted(options.silence.count(), u"second"_s)));
    });
    link.silence.start(options.silence);
}

void Receiver::noteLife(Link &link) const
{
    if (options.silence.count() != 0)
        link.silence.start();
    if (std::exchange(link.isSilent, false))
        sayEvent(u"Heard of again: "_s + link.peer);
}

void Receiver::take(QTcpSocket *socket, Link &link)
{
    if (finished || link.isLeftAlone || link.reader.refusedLength() != 0)
        return;
    const QByteArray piece = socket->readAll();
    if (!piece.isEmpty())
        noteLife(link);
    link.reader.append(piece);
    while (const std::optional<QByteArray> body = link.reader.next()) {
        takeBody(*body, link);
        if (finished)
            return;
        misbehave(socket, link);
        if (link.isLeftAlone)
            return;
    }
    if (link.reader.refusedLength() != 0)
        dropOversized(socket, link);
}

void Receiver::takeBody(const QByteArray &body, Link &link)
{
    if (body == LinkRecord::keepAlive) {
        ++keepAlives;
        return sayEvent(u"live"_s);
    }
    const std::optional<qint64> number = keep(body);
    if (!number) {
        complain(u"receive: cannot write a record of %1 into %2"_s.arg(
            counted(body.size(), u"byte"_s), options.directory));
        finished = true;
        return QCoreApplication::exit(failureStatus);
    }
    ++link.records;
    ++records;
    bytes += body.size();
    sayEvent(u"%1  %2  %3"_s.arg(
        paddedNumber(*number), counted(body.size(), u"byte"_s), beginningOf(body)));
    if (records == options.count) {
        finished = true;
        QCoreApplication::exit(0);
    }
}

// The number of the record, in the folder if there is one; nothing if it could not be written.
std::optional<qint64> Receiver::keep(const QByteArray &body)
{
    return options.directory.isEmpty() ? records + 1 : files.add(body);
}

// As an operator has asked for it, to see what the modules do then.
void Receiver::misbehave(QTcpSocket *socket, Link &link) const
{
    if (link.records == 0)
        return;
    const QString after = counted(link.records, u"record"_s);
    if (link.records == options.closeAfter) {
        link.isLeftAlone = true;
        sayEvent(u"Closing after %1: %2"_s.arg(after, link.peer));
        socket->disconnectFromHost();
    } else if (link.records == options.stopAfter) {
        link.isLeftAlone = true;
        link.silence.stop();
        sayEvent(u"Reading no more after %1: %2"_s.arg(after, link.peer));
        socket->setReadBufferSize(1);
    }
}

void Receiver::dropOversized(QTcpSocket *socket, const Link &link)
{
    complain(u"receive: %1 announces a record of %2, more than %3: dropped"_s.arg(link.peer,
        counted(link.reader.refusedLength(), u"byte"_s), QString::number(options.longestRecord)));
    socket->abort();
}

void Receiver::sayEnd(const Link &link) const
{
    const bool whole = link.isLeftAlone || link.reader.isAtRecordBoundary();
    sayEvent(u"Disconnected: "_s + link.peer + (whole ? u""_s : u", in the middle of a record"_s));
}

void Receiver::sayEvent(const QString &what) const
{
    if (!options.quiet)
        say(timeStamp() + u"  "_s + what);
}

void Receiver::saySummary() const
{
    say(timeStamp()
        + u"  %1 of %2, %3, %4"_s.arg(counted(records, u"record"_s), counted(bytes, u"byte"_s),
            counted(keepAlives, u"keep-alive"_s), counted(connections, u"connection"_s)));
}
