#include "TConnector.h"

#include "BusFrame.h"
#include "ServiceManager.h"
#include "TLog.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

#include <chrono>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto passInterval = 5'000ms; // one repair pass of the bus
constexpr auto maxWait = 30'000ms; // for one connect or disconnect of one socket
constexpr auto connectPoll = 50ms; // between two looks at a server whose queue is full
constexpr qint64 acceptedReadBuffer = 536'870'912; // bytes; an accepted peer waits beyond it
constexpr qint64 maxUnreadBytes = 16'777'216; // a peer that leaves more unread must make progress
constexpr qint64 mostUnreadBytes = 67'108'864; // room for one more of the longest frames
constexpr qint64 resumeBytes = maxUnreadBytes / 2; // the backlog has been read
constexpr auto holdInterval = 250ms; // between two looks whether senders may go on
constexpr auto longestEnd = 5'000ms; // for what is left to read when the process ends
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

// Qt's own wait spins at full load while the server's queue is full, so it is asked in steps.
bool waitUntilConnected(TMyLocalSocket *socket)
{
    const QDeadlineTimer deadline(maxWait);
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

// A socket that is closed prints a warning when it is read.
qint64 TMyLocalSocket::readBuffered(char *to, qint64 size)
{
    return bytesAvailable() > 0 ? std::max<qint64>(read(to, size), 0) : 0;
}

// Leaves an end of the stream or an error for Qt to find.
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

void TMyLocalSocket::judge(std::chrono::milliseconds patience)
{
    // What the kernel can take now counts, however long this process was busy.
    if (bytesToWrite() > maxUnreadBytes)
        flush();
    const qint64 unread = bytesToWrite();
    if (unread < lastUnread || unread <= maxUnreadBytes)
        sinceProgress.start();
    lastUnread = unread;
    if (stalled)
        stalled = unread > resumeBytes;
    else
        stalled = unread > mostUnreadBytes
            || (unread > maxUnreadBytes && sinceProgress.hasExpired(patience.count()));
}

void TMyLocalSocket::enqueue(const QByteArray &frame)
{
    write(frame);
    lastUnread = bytesToWrite();
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
    connect(&holdTimer, &QTimer::timeout, this, &TConnector::releaseSenders);
    // Queued: the signal comes while a frame is written, which may be inside the receive loop.
    connect(adminConnection, &QLocalSocket::bytesWritten, this, &TConnector::releaseSenders,
        Qt::QueuedConnection);
}

void TConnector::SetServerName(QString name)
{
    serverName = name;
    firstStart = true;
    startTimer(passInterval);
}

void TConnector::addOutServerName(QString name)
{
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
    // A connection that is lost during the walk is replaced in the list, so a copy is walked. Lost
    // sockets live until control is back in the event loop.
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
        socket->waitForDisconnected(int(maxWait.count()));
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
    const bool isThere = adminConnection->state() == QLocalSocket::ConnectedState;
    return isThere ? QString() : shownNameOf(adminConnection);
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
    // A slot that hears of a frame may abort the socket: then the rest is lost with it.
    BusFrame frame; // one for all, so that small frames share its memory
    ++readDepth;
    while (socket->isOpen() && !mustWait(socket) && socket->takeFrame(frame))
        dispatch(frame, socket);
    if (--readDepth == 0)
        Q_EMIT ReadDone();
}

// The administration server's own commands never wait: one of them may switch a watch off.
bool TConnector::mustWait(const TMyLocalSocket *socket)
{
    if (socket == adminConnection)
        return false;
    if (!holdsSenders && adminConnection->isOpen() && !adminConnection->stalled
        && adminConnection->bytesToWrite() > maxUnreadBytes) {
        holdsSenders = true;
        holdTimer.start(holdInterval);
    }
    return holdsSenders;
}

void TConnector::releaseSenders()
{
    if (!holdsSenders)
        return;
    judge(adminConnection);
    if (adminConnection->isOpen() && !adminConnection->stalled
        && adminConnection->bytesToWrite() > resumeBytes)
        return;
    holdsSenders = false;
    holdTimer.stop();
    const QList<TMyLocalSocket *> sockets = outConnections + inConnections;
    for (TMyLocalSocket *socket : sockets) {
        if (outConnections.contains(socket) || inConnections.contains(socket))
            SlotNewData(socket);
    }
}

// What is in the sockets would be lost with them, although the senders were told that it was taken.
void TConnector::readToEnd()
{
    const QDeadlineTimer deadline(longestEnd);
    // From here on nobody connects, and the server closes itself when the last one who has
    // connected is taken. Those who come between a last look and a close would be told that all was
    // taken.
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

// Puts a frame into the socket's buffer. A frame for a closed socket is lost, and so is one for a
// peer that has stopped reading: memory must not follow its backlog.
void TConnector::post(TMyLocalSocket *socket, const QByteArray &frame)
{
    if (!socket->isOpen())
        return;
    judge(socket);
    if (!socket->isOpen())
        return;
    if (!socket->stalled)
        return socket->enqueue(frame);
    ++socket->droppedFrames;
    socket->droppedBytes += frame.size();
}

void TConnector::judge(TMyLocalSocket *socket)
{
    const bool wasStalled = socket->stalled;
    socket->judge(patience);
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
