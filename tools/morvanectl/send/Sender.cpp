#include "Sender.h"

#include "BusFrame.h"
#include "BusName.h"
#include "Output.h"
#include "Record.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <chrono>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qint64 maxUnsentBytes = 4'194'304; // reading pauses above it
constexpr auto retryInterval = 200ms;
constexpr auto standstillInterval = 500ms;
constexpr qint64 longStandstill = 5'000; // milliseconds; more than a busy module needs

QString shown(const QString &file)
{
    return file == standardInput ? u"standard input"_s : file;
}

// All of a file or of standard input, or at least what makes it too long for a frame. Says why it
// cannot be read and returns nothing.
std::optional<QByteArray> readToEnd(const QString &path)
{
    QFile file(path);
    const bool opened = path == standardInput
        ? file.open(STDIN_FILENO, QIODevice::ReadOnly | QIODevice::Unbuffered)
        : file.open(QIODevice::ReadOnly);
    QByteArray content(""); // an empty file is not an absent one
    // A pipe gives what is in it, so only an empty piece is the end.
    for (QByteArray piece; opened && content.size() <= longestBody; content += piece) {
        piece = file.read(longestBody + 1 - content.size());
        if (piece.isEmpty())
            break;
    }
    if (opened && file.error() == QFileDevice::NoError)
        return content;
    complain(u"send: cannot read %1: %2"_s.arg(shown(path), file.errorString()));
    return std::nullopt;
}

// Returns a whole data frame. Prints an error and returns nothing if the content is too long.
QByteArray makeFrame(
    const SendOptions &options, const SendOptions::Item &item, const QByteArray &content)
{
    const DataRecord record{options.kind, item.name, content};
    QByteArray frame = BusFrame::makeData(options.dataVersion, record.write());
    if (frame.size() - qsizetype(sizeof(qint32)) <= longestBody)
        return frame;
    complain(u"send: %1 is too long: a frame carries at most %2 bytes"_s.arg(
        shown(item.file), QString::number(longestBody)));
    return {};
}

qint64 bytesOfFiles(const SendOptions &options)
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
    // Before the connection: whoever writes the input may take its time.
    const bool isInput = items.constFirst().file == standardInput;
    if (isInput) {
        std::optional<QByteArray> content = readToEnd(standardInput);
        if (!content)
            return fail(u"%1 cannot be sent"_s.arg(shown(standardInput)));
        input = std::move(*content);
    }
    progress.emplace(isInput ? input.size() : bytesOfFiles(options), !options.quiet);
    retryTimer.start(retryInterval);
    tryToConnect();
    if (finished)
        return;
    if (!options.quiet && options.waitSeconds > 0 && socket.state() != QLocalSocket::ConnectedState)
        say(u"Waiting for %1 to listen"_s.arg(options.module));
    connectTimer.start(std::chrono::seconds(options.waitSeconds));
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
    sinceMovement.start();
    standstillTimer.start(standstillInterval);
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
        const std::optional<QByteArray> content =
            item.file == standardInput ? input : readToEnd(item.file);
        const QByteArray frame = content ? makeFrame(options, item, *content) : QByteArray();
        if (frame.isEmpty())
            return fail(u"%1 cannot be sent"_s.arg(shown(item.file)));
        queuedBytes += frame.size();
        onItsWay.enqueue({u"Sent %1 as %2, %3 in its frame"_s.arg(item.name,
                              QString::fromLatin1(options.kind), counted(frame.size(), u"byte"_s)),
            queuedBytes});
        if (socket.bytesToWrite() == 0)
            sinceMovement.start(); // reading the file may have taken long
        socket.write(frame);
    }
}

void Sender::noteWritten(qint64 bytes)
{
    sentBytes += bytes;
    sinceMovement.start();
    saidStandstill = false;
    while (!onItsWay.isEmpty() && onItsWay.head().endOffset <= sentBytes) {
        const QString line = onItsWay.dequeue().line;
        ++sentRecords;
        if (!options.quiet)
            progress->sayAbove(line);
    }
    showProgress();
    fill();
    if (items.isEmpty() && onItsWay.isEmpty())
        finish();
}

void Sender::showProgress()
{
    const QString standstill = sinceMovement.hasExpired(longStandstill)
        ? u", the module has read nothing for %1"_s.arg(
            counted(sinceMovement.elapsed() / 1'000, u"second"_s))
        : QString();
    progress->update(sentBytes,
        u"%1 of %2%3"_s.arg(
            QString::number(sentRecords), counted(options.items.size(), u"record"_s), standstill));
}

// Reports a standstill once, unless the progress bar shows it.
void Sender::noteStandstill()
{
    if (options.timeoutSeconds > 0 && sinceMovement.hasExpired(options.timeoutSeconds * 1'000LL))
        return fail(u"the module has read nothing for %1"_s.arg(
            counted(options.timeoutSeconds, u"second"_s)));
    showProgress();
    if (progress->isDrawn() || saidStandstill || !sinceMovement.hasExpired(longStandstill))
        return;
    saidStandstill = true;
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
        line += u"; %1 of %2 had left"_s.arg(
            QString::number(sentRecords), counted(options.items.size(), u"record"_s));
    standstillTimer.stop();
    retryTimer.stop();
    if (progress)
        progress->clear();
    complain(line);
    socket.abort();
    QCoreApplication::exit(failureStatus);
}
