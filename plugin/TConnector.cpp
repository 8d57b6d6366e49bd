#include "TConnector.h"

#include "BusFrame.h"
#include "ServiceManager.h"
#include "TLog.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <chrono>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto passInterval = 5'000ms; // one repair pass of the bus
constexpr auto maxSocketWait = 30'000ms; // for one connect or disconnect of one socket
constexpr auto connectPoll = 50ms; // between two checks of a server whose queue is full
constexpr qint64 acceptedReadBuffer = 536'870'912; // bytes; when it is full, the peer waits
constexpr qint64 softUnreadBytes = 16'777'216; // a peer that leaves more unread must make progress
constexpr qint64 hardUnreadBytes = 67'108'864; // room for one more of the longest frames
constexpr qint64 resumeUnreadBytes = softUnreadBytes / 2; // the peer reads again
constexpr auto holdInterval = 250ms; // between two checks whether senders may continue
constexpr auto maxFinalReadTime = 5'000ms; // of all connections, before the process ends
constexpr int adminLostStatus = 5; // exit status of the process

constexpr char watchReport[] = "Watch_Arrow";
constexpr char watchOn[] = "Watch_Arrow_On";
constexpr char watchOff[] = "Watch_Arrow_Off";

QString serverNameOf(const TMyLocalSocket *socket)
{
    return QString::fromLatin1(socket->name.constData());
}

QString shownNameOf(const TMyLocalSocket *socket)
{
    return QString::fromUtf8(socket->name);
}

// Polls: Qt's own wait uses a whole core while the server's queue is full.
bool waitUntilConnected(TMyLocalSocket *socket)
{
    const QDeadlineTimer deadline(maxSocketWait);
    while (!socket->waitForConnected(0) && socket->state() == QLocalSocket::ConnectingState
        && !deadline.hasExpired()) {
        ServiceManager::sayAlive();
        std::this_thread::sleep_for(connectPoll);
    }
    return socket->state() == QLocalSocket::ConnectedState;
}

} // namespace

TMyLocalSocket::TMyLocalSocket(QObject *parent)
    : QLocalSocket(parent)
{
    connect(this, &QLocalSocket::readyRead, this, &TMyLocalSocket::processReadyRead);
}

void TMyLocalSocket::processReadyRead()
{
    Q_EMIT NewData(this);
}

bool TMyLocalSocket::takeFrame(BusFrame &frame)
{
    const FrameReader::Result result = frames.next(frame);
    if (result == FrameReader::Result::TooLong)
        abort();
    return result == FrameReader::Result::Frame;
}

// Does not read a closed socket, which would print a warning.
qint64 TMyLocalSocket::readBuffered(char *to, qint64 size)
{
    return bytesAvailable() > 0 ? std::max<qint64>(read(to, size), 0) : 0;
}

// Stops at an end of the stream or an error, which Qt finds and reports.
qint64 TMyLocalSocket::readDirect(char *to, qint64 size)
{
    qint64 count = 0;
    while (count < size) {
        const ssize_t more = ::read(int(socketDescriptor()), to + count, size_t(size - count));
        if (more <= 0)
            break;
        count += more;
    }
    return count;
}

void TMyLocalSocket::updateStalled(std::chrono::milliseconds patience)
{
    // Write what the kernel takes now: the peer is not to blame while this process was busy.
    if (bytesToWrite() > softUnreadBytes)
        flush();
    const qint64 unread = bytesToWrite();
    if (unread < lastUnreadBytes || unread <= softUnreadBytes)
        sincePeerProgress.start();
    lastUnreadBytes = unread;
    if (stalled)
        stalled = unread > resumeUnreadBytes;
    else
        stalled = unread > hardUnreadBytes
            || (unread > softUnreadBytes && sincePeerProgress.hasExpired(patience.count()));
}

void TMyLocalSocket::enqueue(const QByteArray &frame)
{
    Q_ASSERT(isOpen());
    write(frame);
    lastUnreadBytes = bytesToWrite();
}

TMyLocalServer::TMyLocalServer(QObject *parent)
    : QLocalServer(parent)
{
}

void TMyLocalServer::incomingConnection(quintptr socketDescriptor)
{
    auto *socket = new TMyLocalSocket(this);
    socket->setSocketDescriptor(
        qintptr(socketDescriptor), QLocalSocket::ConnectedState, QIODevice::ReadWrite);
    socket->setReadBufferSize(acceptedReadBuffer);
    Q_EMIT newConnection(socket);
}

TConnector::TConnector(QObject *parent)
    : QObject(parent)
    , server(new TMyLocalServer(this))
    , adminConnection(new TMyLocalSocket(this))
{
    connect(
        adminConnection, &QLocalSocket::disconnected, this, &TConnector::DisconnectAdminConnection);
    connect(adminConnection, &QLocalSocket::connected, this, &TConnector::newOutConnection);
    connect(adminConnection, &QLocalSocket::errorOccurred, this, &TConnector::connectionAdminError);
    connect(adminConnection, &TMyLocalSocket::NewData, this, &TConnector::SlotNewData);
    connect(server, &TMyLocalServer::newConnection, this, &TConnector::newInConnection);
    connect(&holdTimer, &QTimer::timeout, this, &TConnector::tryToReleaseSenders);
    // Queued, because the signal is emitted inside write(), possibly inside the receive loop.
    connect(adminConnection, &QLocalSocket::bytesWritten, this, &TConnector::tryToReleaseSenders,
        Qt::QueuedConnection);
}

void TConnector::SetServerName(QString name)
{
    Q_ASSERT(thread() == QThread::currentThread());
    serverName = name;
    firstStart = true;
    startTimer(passInterval);
}

void TConnector::addOutServerName(QString name)
{
    Q_ASSERT(thread() == QThread::currentThread());
    for (const TMyLocalSocket *socket : std::as_const(outConnections)) {
        if (shownNameOf(socket) == name)
            return;
    }
    auto *socket = new TMyLocalSocket(this);
    socket->name = name.toUtf8();
    connect(socket, &QLocalSocket::disconnected, this, &TConnector::DisconnectOutConnection);
    connect(socket, &QLocalSocket::connected, this, &TConnector::newOutConnection);
    connect(socket, &QLocalSocket::errorOccurred, this, &TConnector::connectionOutError);
    connect(socket, &TMyLocalSocket::NewData, this, &TConnector::SlotNewData);
    outConnections.append(socket);
}

// --- keeping the connections up ---

void TConnector::timerEvent(QTimerEvent *)
{
    Q_ASSERT(thread() == QThread::currentThread());
    pass();
    Q_EMIT passEnded();
}

void TConnector::pass()
{
    const QByteArray greeting = BusFrame::makeName(serverName.toUtf8());
    if (!repairOutConnections(greeting) && firstStart)
        return;
    if (adminConnection->state() != QLocalSocket::ConnectedState
        && !adminConnection->name.isEmpty()) {
        reconnect(adminConnection, greeting);
        if (firstStart)
            return;
    }
    if (!server->isListening())
        startListening();
    firstStart = false;
}

bool TConnector::repairOutConnections(const QByteArray &greeting)
{
    // Walk a copy: a connection that is lost meanwhile is replaced in the list. Its socket lives
    // until control is back in the event loop.
    const QList<TMyLocalSocket *> sockets = outConnections;
    bool allWereUp = true;
    for (TMyLocalSocket *socket : sockets) {
        if (socket->state() == QLocalSocket::ConnectedState)
            continue;
        allWereUp = false;
        if (outConnections.contains(socket))
            reconnect(socket, greeting);
    }
    return allWereUp;
}

void TConnector::reconnect(TMyLocalSocket *socket, const QByteArray &greeting)
{
    ServiceManager::sayAlive();
    socket->flush();
    socket->disconnectFromServer();
    if (socket->state() != QLocalSocket::UnconnectedState)
        socket->waitForDisconnected(int(maxSocketWait.count()));
    socket->connectToServer(serverNameOf(socket), QIODevice::ReadWrite);
    if (waitUntilConnected(socket))
        socket->write(greeting);
    else
        socket->abort();
}

QStringList TConnector::absentServers() const
{
    QStringList names;
    for (const TMyLocalSocket *socket : outConnections) {
        if (socket->state() != QLocalSocket::ConnectedState)
            names.append(shownNameOf(socket));
    }
    return names;
}

QString TConnector::absentAdmin() const
{
    const bool isConnected = adminConnection->state() == QLocalSocket::ConnectedState;
    return isConnected ? QString() : shownNameOf(adminConnection);
}

bool TConnector::isListening() const
{
    return server->isListening();
}

void TConnector::startListening()
{
    QLocalServer::removeServer(serverName);
    if (server->listen(serverName)) {
        pLog->Message(tr("Start server: %1 Ok!!!! \n").arg(serverName));
        return;
    }
    pLog->Message(tr("Start Error: %1\n").arg(server->errorString()), TLog::Priority::Error);
    server->close();
}

// --- events of the connections ---

void TConnector::newOutConnection()
{
    pLog->Message(tr("New Out Connnection\n"));
}

void TConnector::connectionOutError(QLocalSocket::LocalSocketError)
{
    auto *socket = qobject_cast<TMyLocalSocket *>(sender());
    if (!socket)
        return;
    pLog->Message(
        tr("Connnection Out Error: %1 %2\n").arg(shownNameOf(socket), socket->errorString()),
        TLog::Priority::Warning);
    socket->abort();
}

void TConnector::DisconnectOutConnection()
{
    auto *socket = qobject_cast<TMyLocalSocket *>(sender());
    if (!socket)
        return;
    logDropped(socket);
    pLog->Message(
        tr("Connnection Disconnect: %0\n").arg(shownNameOf(socket)), TLog::Priority::Warning);
    socket->abort();
    if (!outConnections.removeOne(socket))
        return;
    addOutServerName(shownNameOf(socket));
    socket->deleteLater();
}

void TConnector::connectionAdminError(QLocalSocket::LocalSocketError)
{
    adminConnection->abort();
}

void TConnector::DisconnectAdminConnection()
{
    logDropped(adminConnection);
    pLog->Message(tr("Admin connection is closed. Stopping application."), TLog::Priority::Warning);
    QCoreApplication::exit(adminLostStatus);
}

void TConnector::newInConnection(TMyLocalSocket *connection)
{
    Q_ASSERT(thread() == QThread::currentThread());
    connect(connection, &QLocalSocket::disconnected, this, &TConnector::DisconnectInConnection);
    connect(connection, &QLocalSocket::errorOccurred, this, &TConnector::connectionInError);
    connect(connection, &TMyLocalSocket::NewData, this, &TConnector::SlotNewData);
    inConnections.append(connection);
    pLog->Message(tr("New In Connection %0\n").arg(shownNameOf(connection)));
}

void TConnector::DisconnectInConnection()
{
    auto *socket = qobject_cast<TMyLocalSocket *>(sender());
    if (!socket)
        return;
    inConnections.removeOne(socket);
    socket->setParent(nullptr);
    socket->deleteLater();
    pLog->Message(tr("Connection in disconnection: %0\n").arg(shownNameOf(socket)));
    logDropped(socket);
}

void TConnector::connectionInError(QLocalSocket::LocalSocketError)
{
    auto *socket = qobject_cast<TMyLocalSocket *>(sender());
    if (!socket)
        return;
    inConnections.removeOne(socket);
    socket->abort();
    socket->setParent(nullptr);
    socket->deleteLater();
    pLog->Message(tr("Connection In Error: %0\n").arg(shownNameOf(socket)));
}

// --- receiving ---

void TConnector::SlotNewData(TMyLocalSocket *socket)
{
    Q_ASSERT(thread() == QThread::currentThread());
    BusFrame frame; // one for the whole loop, so that small frames share its memory
    ++readDepth;
    // A slot that receives a frame may abort the socket, which loses the frames behind it.
    while (socket->isOpen() && !holdBack(socket) && socket->takeFrame(frame))
        dispatch(frame, socket);
    if (--readDepth == 0)
        Q_EMIT ReadDone();
}

// Returns whether the socket must not be read now. Begins to hold the senders back when too much
// waits for the administration server. Never holds back that server's own commands: one of them may
// switch a watch off. Holds back nobody in the last read either: no other read follows.
bool TConnector::holdBack(const TMyLocalSocket *socket)
{
    if (socket == adminConnection || isLastRead)
        return false;
    if (!holdsSenders && adminConnection->isOpen() && !adminConnection->stalled
        && adminConnection->bytesToWrite() > softUnreadBytes) {
        holdsSenders = true;
        holdTimer.start(holdInterval);
    }
    return holdsSenders;
}

void TConnector::tryToReleaseSenders()
{
    Q_ASSERT(thread() == QThread::currentThread());
    if (!holdsSenders)
        return;
    checkStalled(adminConnection);
    if (adminConnection->isOpen() && !adminConnection->stalled
        && adminConnection->bytesToWrite() > resumeUnreadBytes)
        return;
    holdsSenders = false;
    holdTimer.stop();
    const QList<TMyLocalSocket *> sockets = outConnections + inConnections;
    for (TMyLocalSocket *socket : sockets) {
        if (outConnections.contains(socket) || inConnections.contains(socket))
            SlotNewData(socket);
    }
}

// The kernel has told the senders that it took the bytes in the sockets. Unread, they would be
// lost.
void TConnector::readToEnd()
{
    Q_ASSERT(thread() == QThread::currentThread());
    Q_ASSERT(!isReading());
    const QDeadlineTimer deadline(maxFinalReadTime);
    isLastRead = true;
    // Nobody can connect from here on, and the server closes itself after it has accepted those who
    // already have. A client that connected between a last check and a close would be lost.
    if (server->isListening())
        ::shutdown(int(server->socketDescriptor()), SHUT_RD);
    bool isLast = false;
    while (server->isListening() && !isLast && !deadline.hasExpired())
        server->waitForNewConnection(0, &isLast); // its result only counts sockets that it keeps
    server->close();
    const QList<TMyLocalSocket *> sockets = inConnections + outConnections;
    for (TMyLocalSocket *socket : sockets) {
        if (socket->state() != QLocalSocket::ConnectedState)
            continue;
        ::shutdown(int(socket->socketDescriptor()), SHUT_RD);
        SlotNewData(socket);
        while (socket->isOpen() && !deadline.hasExpired() && socket->waitForReadyRead(0)) { }
    }
}

void TConnector::dispatch(BusFrame &frame, TMyLocalSocket *socket)
{
    switch (frame.kind) {
    case BusFrame::Name:
        socket->name = frame.name;
        return;
    case BusFrame::Action:
        Q_EMIT NewAction(frame.name, frame.message, frame.data, frame.id, socket);
        return;
    case BusFrame::Command:
        if (frame.name == watchOn)
            watchArrow = true;
        else if (frame.name == watchOff)
            watchArrow = false;
        else
            Q_EMIT NewCommand(frame.name, frame.data, frame.id, socket);
        return;
    case BusFrame::BusMessage:
        Q_EMIT NewBusMessage(frame.name, frame.data, frame.id);
        return;
    default:
        if (frame.data.isEmpty())
            return;
        if (watchArrow)
            post(adminConnection,
                BusFrame::makeAction(watchReport, QByteArray::number(frame.kind), frame.data, -1));
        Q_EMIT NewData(frame.kind, frame.data, socket);
    }
}

// --- sending ---

void TConnector::SetData(uchar version, QString targetName, QByteArray &data)
{
    const QByteArray frame = BusFrame::makeData(version, data);
    const QList<TMyLocalSocket *> sockets = outConnections + inConnections;
    for (TMyLocalSocket *socket : sockets) {
        if (socket->isValid() && serverNameOf(socket) == targetName)
            send(socket, frame);
    }
}

void TConnector::SetDataAll(uchar version, QByteArray &data)
{
    const QList<TMyLocalSocket *> accepted = inConnections;
    SetOutDataAll(version, data);
    const QByteArray frame = BusFrame::makeData(version, data);
    for (TMyLocalSocket *socket : accepted)
        send(socket, frame);
}

void TConnector::SetOutDataAll(uchar version, QByteArray &data)
{
    const QByteArray frame = BusFrame::makeData(version, data);
    const QList<TMyLocalSocket *> sockets = outConnections;
    for (TMyLocalSocket *socket : sockets)
        send(socket, frame);
}

void TConnector::sendToAdmin(const QByteArray &frame)
{
    send(adminConnection, frame);
}

// Puts a frame into the socket's buffer. Drops it if the socket is closed or the peer has stopped
// reading: memory must not grow with the peer's backlog.
void TConnector::post(TMyLocalSocket *socket, const QByteArray &frame)
{
    Q_ASSERT(thread() == QThread::currentThread());
    if (!socket->isOpen())
        return;
    checkStalled(socket);
    if (!socket->isOpen())
        return;
    if (!socket->stalled)
        return socket->enqueue(frame);
    ++socket->droppedFrames;
    socket->droppedBytes += frame.size();
}

void TConnector::checkStalled(TMyLocalSocket *socket)
{
    const bool wasStalled = socket->stalled;
    socket->updateStalled(patience);
    if (socket->stalled && !wasStalled)
        pLog->Message(
            tr("Connection %1 does not read: frames for it are dropped").arg(shownNameOf(socket)));
    else if (!socket->stalled)
        logDropped(socket);
}

void TConnector::logDropped(TMyLocalSocket *socket)
{
    if (socket->droppedFrames == 0)
        return;
    pLog->Message(tr("Connection %1: %2 frames of %3 bytes were dropped, because it did not read")
                      .arg(shownNameOf(socket), QString::number(socket->droppedFrames),
                          QString::number(socket->droppedBytes)));
    socket->droppedFrames = socket->droppedBytes = 0;
}

void TConnector::send(TMyLocalSocket *socket, const QByteArray &frame)
{
    post(socket, frame);
    socket->flush();
}
