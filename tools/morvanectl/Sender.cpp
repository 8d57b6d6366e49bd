#include "Sender.h"

#include "BusFrame.h"
#include "BusName.h"
#include "Output.h"
#include "Record.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <chrono>
#include <optional>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qint64 maxUnsentBytes = 4'194'304; // read ahead no further while so much has not left
constexpr auto retryInterval = 200ms; // between two looks for a module that is not there yet

// The content of a file or of standard input; nothing, and said, if it cannot be read or is longer
// than any frame.
std::optional<QByteArray> readContent(const QString &path)
{
    QFile file(path);
    const bool opened = path == standardInput ? file.open(stdin, QIODevice::ReadOnly)
                                              : file.open(QIODevice::ReadOnly);
    if (!opened) {
        complain(u"send: cannot read %1: %2"_s.arg(path, file.errorString()));
        return std::nullopt;
    }
    const QByteArray content = file.read(longestBody + 1);
    if (file.error() == QFileDevice::NoError)
        return content.isNull() ? QByteArray("") : content; // empty, but not absent
    complain(u"send: cannot read %1: %2"_s.arg(path, file.errorString()));
    return std::nullopt;
}

// A whole data frame; empty, and said, if the file cannot be sent.
QByteArray makeFrame(const SendOptions &options, const SendOptions::Item &item)
{
    std::optional<QByteArray> content = readContent(item.file);
    if (!content)
        return {};
    const DataRecord record{options.kind, item.name, std::move(*content)};
    QByteArray frame = BusFrame::makeData(options.dataVersion, record.write());
    if (frame.size() - qsizetype(sizeof(qint32)) <= longestBody)
        return frame;
    complain(u"send: %1 is too long: a frame carries at most %2 bytes"_s.arg(
        item.file, QString::number(longestBody)));
    return {};
}

// Of all files together; standard input tells its length only when it is read.
qint64 bytesOf(const SendOptions &options)
{
    qint64 bytes = 0;
    for (const SendOptions::Item &item : options.items)
        bytes += QFileInfo(item.file).size();
    return bytes;
}

} // namespace

Sender::Sender(const SendOptions &sendOptions)
    : options(sendOptions)
    , items(sendOptions.items)
    , progress(bytesOf(sendOptions), !sendOptions.quiet)
    , socket(nullptr)
{
    connect(&socket, &QLocalSocket::connected, this, &Sender::begin);
    connect(&socket, &QLocalSocket::bytesWritten, this, &Sender::noteWritten);
    connect(&socket, &QLocalSocket::disconnected, this,
        [this] { fail(u"the module has closed the connection"_s); });
    // A module has nothing to say to a sender; unread bytes would only pile up.
    connect(&socket, &QIODevice::readyRead, this, [this] { socket.skip(socket.bytesAvailable()); });
    connect(&retry, &QTimer::timeout, this, &Sender::tryToConnect);
    limit.setSingleShot(true);
    connect(&limit, &QTimer::timeout, this, [this] {
        if (socket.state() != QLocalSocket::ConnectedState)
            fail(u"no module listens under this name (%1)"_s.arg(busSocketPath(options.module)));
    });
}

void Sender::start()
{
    retry.start(retryInterval);
    tryToConnect();
    if (!options.quiet && options.waitSeconds > 0 && socket.state() != QLocalSocket::ConnectedState)
        say(u"Waiting for %1 to listen"_s.arg(options.module));
    limit.start(std::chrono::seconds(options.waitSeconds));
}

void Sender::tryToConnect()
{
    if (socket.state() == QLocalSocket::UnconnectedState)
        socket.connectToServer(options.module);
}

void Sender::begin()
{
    retry.stop();
    const QByteArray greeting = BusFrame::makeName(options.ownName);
    queuedBytes = greeting.size();
    socket.write(greeting);
    fill();
}

// Keeps a few frames on their way, so that memory does not follow the number of files.
void Sender::fill()
{
    while (!finished && !items.isEmpty() && socket.bytesToWrite() < maxUnsentBytes) {
        const SendOptions::Item item = items.takeFirst();
        const QByteArray frame = makeFrame(options, item);
        if (frame.isEmpty())
            return fail(u"%1 cannot be sent"_s.arg(item.file));
        queuedBytes += frame.size();
        onItsWay.enqueue({u"Sent %1 as %2, %3 in its frame"_s.arg(item.name,
                              QString::fromLatin1(options.kind), counted(frame.size(), u"byte"_s)),
            queuedBytes});
        socket.write(frame);
    }
}

void Sender::noteWritten(qint64 bytes)
{
    leftBytes += bytes;
    while (!onItsWay.isEmpty() && onItsWay.head().end <= leftBytes) {
        const QString line = onItsWay.dequeue().line;
        ++leftRecords;
        if (!options.quiet)
            progress.sayAbove(line);
    }
    progress.update(leftBytes,
        u"%1 of %2"_s.arg(
            QString::number(leftRecords), counted(options.items.size(), u"record"_s)));
    fill();
    if (items.isEmpty() && onItsWay.isEmpty())
        finish();
}

void Sender::finish()
{
    if (std::exchange(finished, true))
        return;
    socket.disconnectFromServer();
    progress.clear();
    if (!options.quiet)
        say(u"%1 sent to %2"_s.arg(counted(leftRecords, u"record"_s), options.module));
    QCoreApplication::exit(0);
}

void Sender::fail(const QString &what)
{
    if (std::exchange(finished, true))
        return;
    QString line = u"send: %1: %2"_s.arg(options.module, what);
    if (queuedBytes > 0)
        line += u"; %1 of %2 had left"_s.arg(
            QString::number(leftRecords), counted(options.items.size(), u"record"_s));
    progress.clear();
    complain(line);
    socket.abort();
    QCoreApplication::exit(failureStatus);
}
