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

constexpr int mostConnections = 16; // at once; each may hold one unfinished record in memory
constexpr int recordsInARow = 100; // of one connection, before the others have their turn

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
    setProxy(QNetworkProxy::NoProxy);
}

bool Receiver::start()
{
    if (!openFolder()) {
        const QString reason = errno == EWOULDBLOCK
            ? u"another receiver acknowledges the records in it"_s
            : qt_error_string(errno);
        complain(u"receive: the folder %1 cannot be used: %2"_s.arg(options.directory, reason));
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

bool Receiver::openFolder()
{
    errno = 0;
    if (options.acknowledge)
        return batch.open(options.directory, options.nameTemplate);
    return options.directory.isEmpty()
        || files.open(options.directory, options.nameTemplate, options.overwrite);
}

void Receiver::incomingConnection(qintptr descriptor)
{
    auto link = std::make_unique<Link>();
    link->socket = std::make_unique<RecordLink>(int(descriptor), options.longestRecord, nullptr);
    link->peer = link->socket->peer();
    if (qsizetype(links.size()) >= mostConnections) {
        sayEvent(u"Refused %1: %2 are open"_s.arg(
            link->peer, counted(qint64(links.size()), u"connection"_s)));
        return lose(link->socket->unread());
    }
    ++connections;
    link->indexNumber = batch.newLink();
    sayEvent(u"Connected: "_s + link->peer);
    watchSilence(*link);
    connect(
        link->socket.get(), &RecordLink::readable, this, [this, on = link.get()] { take(*on); });
    links.push_back(std::move(link));
}

void Receiver::watchSilence(Link &link) const
{
    if (options.silence.count() == 0)
        return;
    link.silenceTimer.setSingleShot(true);
    link.silenceTimer.callOnTimeout([&link, this] {
        link.isSilent = true;
        complain(u"receive: %1 has been silent for %2"_s.arg(
            link.peer, counted(options.silence.count(), u"second"_s)));
    });
    link.silenceTimer.start(options.silence);
}

void Receiver::noteLife(Link &link) const
{
    if (options.silence.count() != 0)
        link.silenceTimer.start();
    if (std::exchange(link.isSilent, false))
        sayEvent(u"Heard of again: "_s + link.peer);
}

void Receiver::take(Link &link)
{
    const qint64 before = link.socket->bytesRead();
    readRecords(link);
    if (link.socket->bytesRead() > before)
        noteLife(link);
    acknowledge(link);
    if (!finished && !link.hasStoppedReading)
        misbehave(link);
    if (link.socket->refusedLength() != 0)
        return dropOversized(link);
    if (!link.socket->hasEnded() || link.hasStoppedReading)
        return;
    sayEnd(link);
    close(link);
}

void Receiver::readRecords(Link &link)
{
    const int most = options.acknowledge ? RecordBatch::mostRecords : recordsInARow;
    for (int i = 0; i < most && !finished && !link.hasStoppedReading && !batch.isFull(); ++i) {
        const std::optional<QByteArray> body = link.socket->next();
        if (!body)
            return;
        takeBody(*body, link);
        if (isToMisbehave(link))
            return;
    }
}

void Receiver::takeBody(const QByteArray &body, Link &link)
{
    if (body == LinkRecord::keepAlive) {
        ++keepAlives;
        ++link.received;
        return sayEvent(u"live"_s);
    }
    if (!keep(body, link)) {
        lose({body});
        return fail(u"cannot write a record of %1"_s.arg(counted(body.size(), u"byte"_s)));
    }
    ++link.records;
    ++link.received;
    if (records + pendingRecords.size() == options.count) {
        finished = true;
        QCoreApplication::exit(0);
    }
}

// False if the record could not be written.
bool Receiver::keep(const QByteArray &body, const Link &link)
{
    const PendingRecord record = {body.size(), beginningOf(body)};
    if (options.acknowledge) {
        if (!batch.add(body, link.indexNumber))
            return false;
        pendingRecords.append(record);
        return true;
    }
    const std::optional<qint64> number =
        options.directory.isEmpty() ? records + 1 : files.add(body);
    if (number)
        noteKept(*number, record);
    return number.has_value();
}

void Receiver::noteKept(qint64 number, const PendingRecord &record)
{
    ++records;
    recordBytes += record.bytes;
    sayEvent(u"%1  %2  %3"_s.arg(
        paddedNumber(number), counted(record.bytes, u"byte"_s), record.beginning));
}

// The module forgets what it hears of here.
void Receiver::acknowledge(Link &link)
{
    if (!options.acknowledge || link.received == link.acknowledged)
        return;
    const std::optional<QList<qint64>> numbers = batch.commit();
    if (!numbers)
        return fail(
            u"cannot bring %1 to the disk"_s.arg(counted(pendingRecords.size(), u"record"_s)));
    for (qsizetype i = 0; i < numbers->size(); ++i)
        noteKept(numbers->at(i), pendingRecords.at(i));
    pendingRecords.clear();
    link.acknowledged = link.received;
    if (link.socket->acknowledge(link.received))
        return;
    complain(u"receive: %1 does not read its acknowledgements: dropped"_s.arg(link.peer));
    close(link);
}

void Receiver::fail(const QString &what)
{
    complain(u"receive: %1 in %2: %3"_s.arg(what, options.directory, qt_error_string(errno)));
    finished = true;
    QCoreApplication::exit(failureStatus);
}

bool Receiver::isToMisbehave(const Link &link) const
{
    return link.records > 0
        && (link.records == options.closeAfter || link.records == options.stopAfter);
}

// Rehearses the outage that --close-after or --stop-after asks for.
void Receiver::misbehave(Link &link)
{
    if (!isToMisbehave(link))
        return;
    const QString after = counted(link.records, u"record"_s);
    if (link.records == options.closeAfter) {
        sayEvent(u"Closing after %1: %2"_s.arg(after, link.peer));
        close(link);
    } else {
        link.hasStoppedReading = true;
        link.silenceTimer.stop();
        link.socket->stopReading();
        sayEvent(u"Reading no more after %1: %2"_s.arg(after, link.peer));
    }
}

void Receiver::dropOversized(Link &link)
{
    complain(u"receive: %1 announces a record of %2, more than %3: dropped"_s.arg(link.peer,
        counted(link.socket->refusedLength(), u"byte"_s), QString::number(options.longestRecord)));
    close(link);
}

void Receiver::sayEnd(const Link &link) const
{
    sayEvent(u"Disconnected: "_s + link.peer
        + (link.socket->isAtRecordBoundary() ? u""_s : u", in the middle of a record"_s));
}

void Receiver::close(Link &link)
{
    lose(link.socket->unread());
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

// What nobody has acknowledged comes again.
void Receiver::lose(const QByteArrayList &bodies)
{
    if (options.acknowledge)
        return;
    for (const QByteArray &body : bodies) {
        ++loss.records;
        loss.bytes += body.size();
    }
}

void Receiver::sayEvent(const QString &what) const
{
    if (!options.quiet)
        say(timeStamp() + u"  "_s + what);
}

// What has come whole will not come again.
void Receiver::takeLast(Link &link)
{
    const QByteArrayList bodies = link.socket->unread();
    for (qsizetype i = 0; i < bodies.size(); ++i) {
        if (finished || link.hasStoppedReading)
            return lose(bodies.sliced(i));
        takeBody(bodies.at(i), link);
    }
}

int Receiver::finish(int status)
{
    QTcpServer::close();
    for (const auto &link : links) {
        if (!options.acknowledge)
            takeLast(*link);
    }
    links.clear();
    QString lost;
    if (loss.records > 0)
        lost = u", %1 of %2 lost"_s.arg(
            counted(loss.records, u"record"_s), counted(loss.bytes, u"byte"_s));
    say(timeStamp()
        + u"  %1 of %2, %3, %4%5"_s.arg(counted(records, u"record"_s),
            counted(recordBytes, u"byte"_s), counted(keepAlives, u"keep-alive"_s),
            counted(connections, u"connection"_s), lost));
    if (loss.records == 0)
        return status;
    complain(u"receive: %1 had reached this host and were not kept; a module that knows of their "
             "arrival does not send them again"_s.arg(counted(loss.records, u"record"_s)));
    return status == 0 ? lossStatus : status;
}
