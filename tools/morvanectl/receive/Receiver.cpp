#include "Receiver.h"

#include "NameTemplate.h"
#include "Output.h"

#include <QCoreApplication>
#include <QNetworkProxy>

#include <algorithm>
#include <sys/socket.h>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int mostConnections = 16; // each may hold one unfinished record in memory
constexpr int recordsInARow = 100; // then other connections have their turn

} // namespace

Receiver::Receiver(const ReceiveOptions &receiveOptions)
    : options(receiveOptions)
    , store(options)
{
    setProxy(QNetworkProxy::NoProxy);
}

bool Receiver::start()
{
    if (!store.open()) {
        const QString reason = errno == EWOULDBLOCK
            ? u"another receiver acknowledges records there"_s
            : qt_error_string(errno);
        complain(u"receive: cannot use the folder %1: %2"_s.arg(options.directory, reason));
        return false;
    }
    if (!listen(options.address, options.port)) {
        complain(u"receive: cannot listen on %1 port %2: %3"_s.arg(
            options.address.toString(), QString::number(options.port), errorString()));
        return false;
    }
    // Connections inherit the buffer size.
    if (options.kernelBuffer > 0)
        ::setsockopt(int(socketDescriptor()), SOL_SOCKET, SO_RCVBUF, &options.kernelBuffer,
            sizeof(options.kernelBuffer));
    say(timeStamp()
        + u"  Listening on %1 port %2"_s.arg(
            serverAddress().toString(), QString::number(serverPort())));
    return true;
}

void Receiver::incomingConnection(qintptr descriptor)
{
    auto link = std::make_unique<Link>();
    link->socket = std::make_unique<RecordLink>(int(descriptor), options.longestRecord, nullptr);
    link->peer = link->socket->peer();
    if (qsizetype(links.size()) >= mostConnections) {
        sayEvent(u"Refused %1: %2 are open"_s.arg(
            link->peer, counted(qint64(links.size()), u"connection"_s)));
        return countLost(link->socket->unread());
    }
    tally.addConnection();
    link->indexNumber = store.newLink();
    sayEvent(u"Connected: "_s + link->peer);
    watchSilence(*link);
    connect(link->socket.get(), &RecordLink::readable, this,
        [this, on = link.get()] { readFrom(*on); });
    links.push_back(std::move(link));
}

void Receiver::watchSilence(Link &link) const
{
    if (options.silenceToReport.count() == 0)
        return;
    link.silenceTimer.setSingleShot(true);
    link.silenceTimer.callOnTimeout([&link, this] {
        link.isSilent = true;
        complain(u"receive: %1 has been silent for %2"_s.arg(
            link.peer, counted(options.silenceToReport.count(), u"second"_s)));
    });
    link.silenceTimer.start(options.silenceToReport);
}

void Receiver::noteActivity(Link &link) const
{
    if (options.silenceToReport.count() != 0)
        link.silenceTimer.start();
    if (std::exchange(link.isSilent, false))
        sayEvent(u"Heard from again: "_s + link.peer);
}

void Receiver::readFrom(Link &link)
{
    const qint64 before = link.socket->bytesRead();
    readRecords(link);
    if (link.socket->bytesRead() > before)
        noteActivity(link);
    acknowledge(link);
    if (!finished && !link.hasStoppedReading)
        misbehave(link);
    if (link.hasStoppedReading)
        return;
    if (link.socket->refusedLength() != 0)
        return dropOversized(link);
    if (!link.socket->hasEnded())
        return;
    sayEnd(link);
    close(link);
}

void Receiver::readRecords(Link &link)
{
    const int most = options.acknowledge ? RecordBatch::mostRecords : recordsInARow;
    for (int i = 0; i < most && !finished && !link.hasStoppedReading && !store.isFull(); ++i) {
        const std::optional<QByteArray> body = link.socket->next();
        if (!body)
            return;
        takeRecord(*body, link);
        if (isDueToMisbehave(link))
            return;
    }
}

void Receiver::takeRecord(const QByteArray &body, Link &link)
{
    if (body == LinkRecord::keepAlive) {
        tally.addKeepAlive();
        ++link.recordsAndKeepAlives;
        return sayEvent(u"live"_s);
    }
    if (!store.add(body, link.indexNumber)) {
        const int reason = errno;
        countLost({body});
        return fail(u"cannot write a record of %1"_s.arg(counted(body.size(), u"byte"_s)), reason);
    }
    ++link.records;
    ++link.recordsAndKeepAlives;
    if (!options.acknowledge)
        showKept(store.commit().value_or(QList<RecordStore::Record>()));
    if (tally.kept() + store.pending() == options.leaveAfterRecords) {
        finished = true;
        QCoreApplication::exit(0);
    }
}

void Receiver::showKept(const QList<RecordStore::Record> &records)
{
    for (const RecordStore::Record &record : records) {
        tally.addKept(record.bytes);
        sayEvent(u"%1  %2  %3"_s.arg(
            paddedNumber(record.number), counted(record.bytes, u"byte"_s), record.beginning));
    }
}

// Stores the records for good before it acknowledges them, because the module then forgets them.
void Receiver::acknowledge(Link &link)
{
    if (!options.acknowledge || link.recordsAndKeepAlives == link.acknowledged)
        return;
    const std::optional<QList<RecordStore::Record>> kept = store.commit();
    if (!kept) {
        const int reason = errno;
        return fail(
            u"cannot bring %1 to the disk"_s.arg(counted(store.pending(), u"record"_s)), reason);
    }
    showKept(*kept);
    link.acknowledged = link.recordsAndKeepAlives;
    if (link.socket->acknowledge(link.recordsAndKeepAlives))
        return;
    complain(u"receive: %1 does not read its acknowledgements: dropped"_s.arg(link.peer));
    close(link);
}

void Receiver::fail(const QString &what, int reason)
{
    complain(u"receive: %1 in %2: %3"_s.arg(what, options.directory, qt_error_string(reason)));
    finished = true;
    QCoreApplication::exit(failureStatus);
}

bool Receiver::isDueToMisbehave(const Link &link) const
{
    return link.records > 0
        && (link.records == options.closeLinkAfterRecords
            || link.records == options.stopReadingAfterRecords);
}

// Rehearses the outage that --close-after or --stop-after asks for.
void Receiver::misbehave(Link &link)
{
    if (!isDueToMisbehave(link))
        return;
    const QString after = counted(link.records, u"record"_s);
    if (link.records == options.closeLinkAfterRecords) {
        sayEvent(u"Closed after %1: %2"_s.arg(after, link.peer));
        close(link);
    } else {
        link.hasStoppedReading = true;
        link.silenceTimer.stop();
        link.socket->stopReading();
        sayEvent(u"Stopped reading after %1: %2"_s.arg(after, link.peer));
    }
}

void Receiver::dropOversized(Link &link)
{
    complain(u"receive: %1 announces a record of %2, more than the limit of %3: dropped"_s.arg(
        link.peer, counted(link.socket->refusedLength(), u"byte"_s),
        QString::number(options.longestRecord)));
    close(link);
}

void Receiver::sayEnd(const Link &link) const
{
    sayEvent(u"Disconnected: "_s + link.peer
        + (link.socket->isAtRecordBoundary() ? u""_s : u", in the middle of a record"_s));
}

void Receiver::close(Link &link)
{
    countLost(link.socket->unread());
    link.socket->close();
    link.silenceTimer.stop();
    link.hasStoppedReading = true;
    const auto found = std::find_if(
        links.begin(), links.end(), [&](const auto &other) { return other.get() == &link; });
    const std::shared_ptr<Link> closed = std::move(*found);
    links.erase(found);
    // A slot of the link may be running, so delete it only from the event loop.
    QMetaObject::invokeMethod(
        this, [closed] {}, Qt::QueuedConnection);
}

// A module sends records again that were not acknowledged, so those are not lost.
void Receiver::countLost(const QByteArrayList &bodies)
{
    if (!options.acknowledge)
        tally.addLost(bodies);
}

void Receiver::sayEvent(const QString &what) const
{
    if (!options.quiet)
        say(timeStamp() + u"  "_s + what);
}

// Takes the records that have arrived completely, because the module will not send them again.
void Receiver::takeArrived(Link &link)
{
    const QByteArrayList bodies = link.socket->unread();
    for (qsizetype i = 0; i < bodies.size(); ++i) {
        if (finished || link.hasStoppedReading)
            return countLost(bodies.sliced(i));
        takeRecord(bodies.at(i), link);
    }
}

int Receiver::finish(int status)
{
    QTcpServer::close();
    for (const auto &link : links) {
        if (!options.acknowledge)
            takeArrived(*link);
    }
    links.clear();
    say(timeStamp() + u"  "_s + tally.summary());
    if (tally.lost() == 0)
        return status;
    complain(
        u"receive: %1 had reached this host but were not kept; a module does not send again what "
        "its peer's host has acknowledged"_s.arg(counted(tally.lost(), u"record"_s)));
    return status == 0 ? lossStatus : status;
}
