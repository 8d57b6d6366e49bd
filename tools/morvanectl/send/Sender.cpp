#include "Sender.h"

#include "BusFrame.h"
#include "BusName.h"
#include "Outgoing.h"
#include "Output.h"

#include <QCoreApplication>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qint64 maxUnsentBytes = 4'194'304; // reading pauses above it
constexpr auto retryInterval = 200ms;
constexpr auto standstillInterval = 500ms;
constexpr qint64 longStandstill = 5'000; // milliseconds; longer than a busy module pauses

} // namespace

Sender::Sender(const SendOptions &sendOptions)
    : options(sendOptions)
    , itemsToQueue(sendOptions.items)
    , socket(nullptr)
{
    connect(&socket, &QLocalSocket::connected, this, &Sender::begin);
    connect(&socket, &QLocalSocket::bytesWritten, this, &Sender::noteWritten);
    connect(&socket, &QLocalSocket::disconnected, this,
        [this] { fail(u"the module has closed the connection"_s); });
    // A module sends nothing that concerns a sender; unread bytes would pile up.
    connect(&socket, &QIODevice::readyRead, this, [this] { socket.skip(socket.bytesAvailable()); });
    connect(&retryTimer, &QTimer::timeout, this, &Sender::tryToConnect);
    connect(&standstillTimer, &QTimer::timeout, this, &Sender::noteStandstill);
    connectTimer.setSingleShot(true);
    connect(&connectTimer, &QTimer::timeout, this, [this] {
        if (socket.state() != QLocalSocket::ConnectedState)
            fail(connectionProblem(options.module, socket.error()));
    });
}

void Sender::start()
{
    // Read before connecting, because whoever writes the input may take long.
    const bool isInput = itemsToQueue.constFirst().file == standardInput;
    if (isInput) {
        std::optional<QByteArray> content = readToEnd(standardInput);
        if (!content)
            return fail(u"%1 cannot be sent"_s.arg(shownFile(standardInput)));
        inputContent = std::move(*content);
    }
    progress.emplace(isInput ? inputContent.size() : bytesOfFiles(options.items),
        options.quiet ? Progress::Bar::Hidden : Progress::Bar::Shown);
    retryTimer.start(retryInterval);
    tryToConnect();
    if (finished)
        return;
    if (!options.quiet && options.listenWaitSeconds > 0
        && socket.state() != QLocalSocket::ConnectedState)
        say(u"Waiting for %1 to listen"_s.arg(options.module));
    connectTimer.start(std::chrono::seconds(options.listenWaitSeconds));
}

void Sender::tryToConnect()
{
    if (socket.state() == QLocalSocket::UnconnectedState)
        socket.connectToServer(options.module);
    // Waiting would not change the permissions.
    if (socket.error() == QLocalSocket::SocketAccessError)
        fail(connectionProblem(options.module, socket.error()));
}

void Sender::begin()
{
    retryTimer.stop();
    sinceBytesLeft.start();
    standstillTimer.start(standstillInterval);
    const QByteArray greeting = BusFrame::makeName(options.ownBusName);
    queuedBytes = greeting.size();
    socket.write(greeting);
    queueMore();
}

// Queues only a few frames at a time, so that memory does not grow with the number of files.
void Sender::queueMore()
{
    while (!finished && !itemsToQueue.isEmpty() && socket.bytesToWrite() < maxUnsentBytes) {
        const SendOptions::Item item = itemsToQueue.takeFirst();
        const std::optional<QByteArray> content =
            item.file == standardInput ? inputContent : readToEnd(item.file);
        const QByteArray frame = content ? makeFrame(options, item, *content) : QByteArray();
        if (frame.isEmpty())
            return fail(u"%1 cannot be sent"_s.arg(shownFile(item.file)));
        queuedBytes += frame.size();
        recordsOnTheirWay.enqueue(
            {u"Sent %1 as %2, %3 in its frame"_s.arg(
                 item.name, QString::fromLatin1(options.kind), counted(frame.size(), u"byte"_s)),
                queuedBytes});
        if (socket.bytesToWrite() == 0)
            sinceBytesLeft.start(); // not while the file was read
        socket.write(frame);
    }
}

void Sender::noteWritten(qint64 bytes)
{
    sentBytes += bytes;
    sinceBytesLeft.start();
    isStandstillReported = false;
    while (!recordsOnTheirWay.isEmpty() && recordsOnTheirWay.head().endOffset <= sentBytes) {
        const QString line = recordsOnTheirWay.dequeue().report;
        ++sentRecords;
        if (!options.quiet)
            progress->sayAbove(line);
    }
    showProgress();
    queueMore();
    if (itemsToQueue.isEmpty() && recordsOnTheirWay.isEmpty())
        finish();
}

void Sender::showProgress()
{
    const QString standstill = sinceBytesLeft.hasExpired(longStandstill)
        ? u", the module has read nothing for %1"_s.arg(
            counted(sinceBytesLeft.elapsed() / 1'000, u"second"_s))
        : QString();
    progress->update(sentBytes,
        u"%1 of %2%3"_s.arg(
            QString::number(sentRecords), counted(options.items.size(), u"record"_s), standstill));
}

// Reports a standstill once, unless the progress bar shows it.
void Sender::noteStandstill()
{
    if (options.standstillLimitSeconds > 0
        && sinceBytesLeft.hasExpired(options.standstillLimitSeconds * 1'000LL))
        return fail(u"the module has read nothing for %1"_s.arg(
            counted(options.standstillLimitSeconds, u"second"_s)));
    showProgress();
    if (progress->isDrawn() || isStandstillReported || !sinceBytesLeft.hasExpired(longStandstill))
        return;
    isStandstillReported = true;
    complain(u"send: %1 has read nothing for %2, waiting"_s.arg(
        options.module, counted(longStandstill / 1'000, u"second"_s)));
}

void Sender::finish()
{
    if (std::exchange(finished, true))
        return;
    standstillTimer.stop();
    socket.disconnectFromServer();
    progress->clear();
    if (!options.quiet)
        say(u"%1 sent to %2"_s.arg(counted(sentRecords, u"record"_s), options.module));
    QCoreApplication::exit(0);
}

void Sender::fail(const QString &what)
{
    if (std::exchange(finished, true))
        return;
    QString line = u"send: %1: %2"_s.arg(options.module, what);
    if (queuedBytes > 0)
        line += u"; %1 of %2 had been sent"_s.arg(
            QString::number(sentRecords), counted(options.items.size(), u"record"_s));
    standstillTimer.stop();
    retryTimer.stop();
    if (progress)
        progress->clear();
    complain(line);
    socket.abort();
    QCoreApplication::exit(failureStatus);
}
