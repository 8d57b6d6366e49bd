#include "test_object.h"

#include "PeerAddress.h"
#include "ReceivedFiles.h"
#include "TLog.h"
#include "TTransferData.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QNetworkProxy>
#include <QUdpSocket>

#include <cerrno>
#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto scanInterval = 1s;
constexpr auto deliveryPause = 500ms; // before a delivered file is removed
constexpr auto bindInterval = 3s; // between two attempts at a port that is taken
constexpr auto unreadableInterval = 10s; // between two attempts at a file that cannot be read
constexpr qsizetype maxSaidUnreadable = 100; // files; of more at a time nothing is said
constexpr auto obstacleInterval = 5s; // between two looks at the addresses of this host
constexpr auto peerLinesTime = 60s; // in which a peer can cause so many lines at most
constexpr int maxPeerLines = 20;
constexpr auto longestFinish = 10s; // what an end waits for received files to be written
constexpr int receiveBufferBytes = 4 << 20; // the thread has other work than the socket's
constexpr int datagramsPerTurn = 256; // then timers get theirs, however many datagrams wait
constexpr qsizetype maxDatagram = 65'536; // bytes; no datagram is longer

// Building the text of a line costs more than sending the packet.
bool isDebugOn()
{
    return QLoggingCategory::defaultCategory()->isDebugEnabled();
}

// The line that qDebug() << text << datagram.toHex() << "\r\n" gives, several times faster.
void debugDatagram(const char *text, QByteArrayView datagram)
{
    if (isDebugOn())
        qDebug("%s \"%s\" \r\n", text, datagram.toByteArray().toHex().constData());
}

// Of the process, not of the file; the next one would not fare better.
bool isShortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool isWorkingDirectory(const QString &path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    return !canonical.isEmpty() && canonical == QFileInfo(u"."_s).canonicalFilePath();
}

} // namespace

ScanThread::ScanThread(QObject *parent, unsigned short ownPort, unsigned short peerPort,
    QString peerHost, unsigned short timeout, QString directory)
    : QThread(parent)
    , remotePort(peerPort)
    , remoteHost(peerHost)
    , spoolDir(directory)
    , fileTransfer(new TFileTransfer(timeout, 0, nullptr))
    , udpSocket(new QUdpSocket(this))
    , localPort(ownPort)
    , buffer(maxDatagram, '\0')
    , peerAddress(remoteHost)
    , isSpoolReceived(isWorkingDirectory(spoolDir))
{
    // The system's proxy settings must not carry the packets anywhere else.
    udpSocket->setProxy(QNetworkProxy::NoProxy);
    connect(udpSocket, &QIODevice::readyRead, this, &ScanThread::UdpDatagrams);
    connect(&bindTimer, &QTimer::timeout, this, &ScanThread::bindSocket);
    if (isSpoolReceived)
        reportFromAnyThread(
            tr("Nothing is sent or received: the spool directory is the working directory, "
               "and received files would be sent back"));
    else
        bindSocket();
    deliveryTimer.setSingleShot(true);
    connect(&deliveryTimer, &QTimer::timeout, this, &ScanThread::removeDelivered);
    connect(qApp, &QCoreApplication::aboutToQuit, this, &ScanThread::finish);
    connectEngine();
}

void ScanThread::connectEngine()
{
    fileTransfer->receivedFiles().workInBackground();
    connect(fileTransfer, &TFileTransfer::FileSended, this, &ScanThread::on_FileSended);
    connect(fileTransfer, &TFileTransfer::FileRefused, this, &ScanThread::on_FileRefused);
    connect(fileTransfer, &TFileTransfer::FileUnreadable, this, &ScanThread::on_FileUnreadable);
    connect(fileTransfer, &TFileTransfer::FileForgotten, this, &ScanThread::on_FileForgotten);
    connect(fileTransfer, &TFileTransfer::SendData, this, &ScanThread::SendData);
    connect(fileTransfer, &TFileTransfer::Trouble, this, &ScanThread::reportOfPeer);
    connect(fileTransfer, &TFileTransfer::FileReceived, this, [this] { ++done.filesReceived; });
}

ScanThread::~ScanThread()
{
    stop();
    finish();
    delete fileTransfer;
}

void ScanThread::setMaxReceivedBytes(qint64 bytes)
{
    fileTransfer->receivedFiles().setMaxBytes(bytes);
}

void ScanThread::finish()
{
    if (deliveryTimer.isActive())
        removeDelivered();
    fileTransfer->receivedFiles().finish(longestFinish);
}

void ScanThread::stop()
{
    {
        const std::lock_guard lock(mutex);
        stopRequested = true;
    }
    requestInterruption(); // ends a compression
    stopCondition.notify_all();
    wait();
    const std::lock_guard lock(mutex); // see run()
}

// --- the scanning thread ---

void ScanThread::run()
{
    scan();
    // The last use of this object's members here, as far as the thread sanitizer can see: what
    // wait() does about it is hidden from it.
    const std::lock_guard lock(mutex);
}

void ScanThread::scan()
{
    if (isSpoolReceived)
        return;
    removeLeftoversOfTheDead(u"."_s); // of received files
    SpoolLock lock(spoolDir, [this](const QString &line) { reportFromAnyThread(line); });
    // Transfer numbers begin anew with every engine. What a killed process has sent may still be
    // answered; an engine that is not sending ignores that.
    nextScan = Clock::now() + scanInterval;
    while (waitForTurn()) {
        if (isSpoolFree(lock))
            handOverFirstFile();
    }
}

// Waits for the end of a transfer, and for a second to pass since the last look at the spool. False
// as soon as somebody asks for the end.
bool ScanThread::waitForTurn()
{
    std::unique_lock guard(mutex);
    const auto isOver = [this] { return stopRequested; };
    if (stopCondition.wait_until(guard, nextScan, isOver))
        return false;
    stopCondition.wait(guard, [this] { return stopRequested || !busy; });
    nextScan = Clock::now() + scanInterval;
    return !stopRequested;
}

bool ScanThread::isSpoolFree(SpoolLock &lock)
{
    const SpoolLock::State state = lock.look();
    const bool isStuck = state == SpoolLock::State::Stuck;
    if (isStuck && !saidStuckLock)
        reportFromAnyThread(tr("Can't remove the lock file of %1, nothing is sent").arg(spoolDir));
    saidStuckLock = isStuck;
    return state == SpoolLock::State::Free;
}

void ScanThread::handOverFirstFile()
{
    const SpoolDirectory spool(spoolDir);
    passedOver.removeIf([&](auto file) { return spool.mark(file.key()) != file.value().mark; });
    bool hasForeign = false;
    const QString name = spool.first(
        [this](const QString &candidate) { return isPassedOver(candidate); }, hasForeign);
    if (hasForeign)
        spool.setForeignNamesAside(
            [this](const QString &line) { reportFromAnyThread(line); }, hasFailedForeign);
    const std::optional<Mark> mark = name.isEmpty() ? std::nullopt : spool.mark(name);
    if (!mark)
        return;
    currentName = name;
    currentPath = spool.pathOf(name);
    currentMark = *mark;
    busy.store(true, std::memory_order_release);
    fileTransfer->OpenFile(currentPath);
}

bool ScanThread::isPassedOver(const QString &name) const
{
    const auto file = passedOver.constFind(name);
    return file != passedOver.cend() && Clock::now() < file->until;
}

// --- what the engine reports ---

void ScanThread::on_FileSended()
{
    deliveryTimer.start(deliveryPause);
}

void ScanThread::removeDelivered()
{
    deliveryTimer.stop();
    // A newer file that has taken the name meanwhile is not the delivered one.
    const bool isRemoved = SpoolDirectory(spoolDir).remove(currentName, currentMark)
        != SpoolDirectory::Removal::Failed;
    const QString path = currentPath;
    release();
    ++done.filesDelivered;
    saidShortage = false;

    if (isDebugOn())
        qDebug() << u"Transmitted file  "_s + path;
    Q_EMIT LogMessage((tr("Transmitted file") + u' ' + path).toUtf8());
    if (isRemoved)
        return;
    if (isDebugOn())
        qDebug() << u"Can't delete file "_s + path;
    Q_EMIT LogMessage((tr("Can't delete file") + u' ' + path).toUtf8());
}

void ScanThread::on_FileRefused(QString, QString reason)
{
    // One that was replaced meanwhile may be a good one by now.
    if (SpoolDirectory(spoolDir).mark(currentName) == currentMark)
        setAside(reason);
    release();
}

// It may be readable again soon: the disk, the rights, or what the process may have open.
void ScanThread::on_FileUnreadable(QString, int error)
{
    const bool isKnown = passedOver.contains(currentName);
    if (isShortage(error) ? !std::exchange(saidShortage, true)
                          : error != ENOENT && !isKnown && passedOver.size() < maxSaidUnreadable)
        report(tr("Can't read file %1, trying again: %2").arg(currentPath, qt_error_string(error)));
    if (!isShortage(error) && error != ENOENT)
        passedOver[currentName] = {currentMark, Clock::now() + unreadableInterval};
    release();
}

void ScanThread::on_FileForgotten()
{
    sendAfresh(tr("The peer has lost part of file %1, it is sent afresh"));
}

// The scanning thread may take the next file.
void ScanThread::release()
{
    {
        const std::lock_guard lock(mutex);
        busy.store(false, std::memory_order_release);
    }
    stopCondition.notify_all();
}

void ScanThread::setAside(const QString &reason)
{
    const SpoolDirectory::SetAside result = SpoolDirectory(spoolDir).setAside(currentName);
    if (result == SpoolDirectory::SetAside::Gone)
        return;
    ++done.filesRefused;
    const bool isMoved = result == SpoolDirectory::SetAside::Moved;
    if (!isMoved)
        passedOver.insert(currentName, {currentMark, Clock::time_point::max()});
    const QString text =
        isMoved ? tr("Refused file %1: %2") : tr("Refused file %1, and can't move it: %2");
    report(text.arg(currentPath, reason));
}

// The next scan takes the file again, with the next transfer id.
void ScanThread::sendAfresh(const QString &text)
{
    fileTransfer->StopSending();
    const QString path = currentPath;
    release();
    report(text.arg(path));
}

// --- the socket ---

void ScanThread::bindSocket()
{
    udpSocket->abort();
    if (udpSocket->bind(localPort)) {
        bindTimer.stop();
        udpSocket->setSocketOption(
            QAbstractSocket::ReceiveBufferSizeSocketOption, receiveBufferBytes);
        if (saidNoPort)
            reportFromAnyThread(tr("Using UDP port %1 now").arg(localPort));
        return;
    }
    if (!saidNoPort)
        reportFromAnyThread(
            tr("Can't use UDP port %1: %2").arg(localPort).arg(udpSocket->errorString()));
    saidNoPort = true;
    bindTimer.start(bindInterval);
}

// Why nothing can be sent to the configured peer, or an empty text.
QString ScanThread::obstacle() const
{
    if (PeerAddress::isUnspecified(peerAddress))
        return tr("Nothing is sent: \"%1\" is not the numeric address of a peer").arg(remoteHost);
    // The engine would acknowledge its own packets.
    if (remotePort == localPort && PeerAddress::isThisHost(peerAddress))
        return tr("Nothing is sent: %1 with port %2 is this module itself")
            .arg(remoteHost)
            .arg(remotePort);
    return {};
}

bool ScanThread::mayReach()
{
    if (Clock::now() < nextObstacleLook)
        return lastObstacle.isEmpty();
    nextObstacleLook = Clock::now() + obstacleInterval;
    const QString now = obstacle();
    if (std::exchange(lastObstacle, now) != now && !now.isEmpty())
        report(now);
    return now.isEmpty();
}

void ScanThread::SendData(QByteArray &packet)
{
    // Without its port the socket would take any other, to which no answer comes.
    if (mayReach() && udpSocket->state() == QAbstractSocket::BoundState)
        udpSocket->writeDatagram(packet, peerAddress, remotePort);
    debugDatagram("Send package   ", packet);

    const auto sent = Packet::read(packet);
    if (sent)
        count(*sent, packet.size());
    if (sent && sent->kind == Packet::StatusRequest && watch.isInVain(sent->id))
        sendAfresh(tr("The peer acknowledges no more of file %1, it is sent afresh"));
}

void ScanThread::count(const Packet &sent, qint64 bytes)
{
    if (sent.kind != Packet::Data)
        return;
    ++done.packetsSent;
    done.bytesSent += bytes;
    if (sentPackets.isRepeated(sent.id, sent.number))
        ++done.packetsRepeated;
}

void ScanThread::UdpDatagrams()
{
    // Read without asking first whether there is one: the kernel calls the socket readable for a
    // datagram with a wrong checksum, too, and drops it only when it is looked at. Without an
    // attempt to read, the socket's notifier would stay switched off from then on.
    for (int i = 0; i < datagramsPerTurn; ++i) {
        QHostAddress sender;
        const qint64 size = udpSocket->readDatagram(
            buffer.data(), buffer.size(), onlyPeer ? &sender : nullptr, nullptr);
        if (size < 0)
            return;
        if (!onlyPeer || isHeeded(sender))
            takeDatagram(int(size));
    }
}

bool ScanThread::isHeeded(const QHostAddress &sender)
{
    if (sender.isEqual(peerAddress, QHostAddress::ConvertV4MappedToIPv4))
        return true;
    if (!std::exchange(saidStranger, true))
        report(tr("Datagrams from %1 are dropped: it is not the peer").arg(sender.toString()));
    return false;
}

void ScanThread::takeDatagram(int size)
{
    const auto packet = Packet::read(QByteArrayView(buffer).first(size));
    if (packet)
        watch.received(*packet);
    if (packet)
        done.lastAnswer = QDateTime::currentSecsSinceEpoch();
    fileTransfer->ReceiveData(buffer.data(), size);
    debugDatagram("Received package   ", QByteArrayView(buffer).first(size));
}

// --- what an operator should hear ---

// From any thread; heard a moment later.
void ScanThread::reportFromAnyThread(const QString &line)
{
    const std::lock_guard lock(mutex);
    pendingLines.append(line);
    // By name for the same reason as in the engine: nothing is shared outside the mutex.
    QMetaObject::invokeMethod(this, "reportPending", Qt::QueuedConnection);
}

void ScanThread::reportPending()
{
    QStringList lines;
    {
        const std::lock_guard lock(mutex);
        lines.swap(pendingLines);
    }
    for (const QString &line : std::as_const(lines))
        report(line);
}

// A peer that sends one bad file behind the other must not fill the log.
void ScanThread::reportOfPeer(const QString &line)
{
    if (Clock::now() >= peerLinesUntil) {
        peerLinesUntil = Clock::now() + peerLinesTime;
        peerLines = 0;
    }
    if (++peerLines <= maxPeerLines)
        report(line);
    else if (peerLines == maxPeerLines + 1)
        report(tr("Further lines about received files are left out for a minute"));
}

void ScanThread::report(const QString &line)
{
    if (isDebugOn())
        qDebug() << line;
    pLog->Message(line, TLog::Priority::Warning);
    Q_EMIT LogMessage(line.toUtf8());
}
