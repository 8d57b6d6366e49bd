#include "test_object.h"

#include "LoggingLevel.h"
#include "PeerAddress.h"
#include "ReceivedFiles.h"
#include "SpoolLock.h"
#include "TLog.h"
#include "TTransferData.h"
#include "WholeFile.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QNetworkProxy>
#include <QUdpSocket>

#include <cerrno>
#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto scanInterval = 1s;
constexpr auto pauseBeforeRemoval = 500ms;
constexpr auto bindRetryInterval = 3s;
constexpr auto unreadableRetryInterval = 10s;
constexpr qsizetype maxReportedUnreadable = 100; // files at a time; further ones are not reported
constexpr auto obstacleCheckInterval = 5s;
// A peer can cause at most this many lines of the log in this time.
constexpr int maxPeerLines = 20;
constexpr auto peerLinesTime = 60s;
constexpr auto longestFinish = 10s;
constexpr int receiveBufferBytes = 4 << 20; // large, because this thread also does other work
constexpr int datagramsPerTurn = 256; // then timers get their turn
constexpr qsizetype maxDatagram = 65'536; // bytes

Q_LOGGING_CATEGORY(transferCategory, "morvane.transfer", defaultLoggingLevel())

// Prints the same line as qCDebug() << text << datagram.toHex() << "\r\n", several times faster.
void debugDatagram(const char *text, QByteArrayView datagram)
{
    qCDebug(transferCategory, "%s \"%s\" \r\n", text, datagram.toByteArray().toHex().constData());
}

// Tells whether the process lacks a resource. Then no other file could be read either.
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
    , spool(directory)
    , fileTransfer(new TFileTransfer(timeout, 0, nullptr))
    , udpSocket(new QUdpSocket(this))
    , localPort(ownPort)
    , datagramBuffer(maxDatagram, '\0')
    , peerAddress(remoteHost)
    , isSpoolWorkingDirectory(isWorkingDirectory(directory))
{
    // The system's proxy settings must not redirect the packets.
    udpSocket->setProxy(QNetworkProxy::NoProxy);
    connect(udpSocket, &QIODevice::readyRead, this, &ScanThread::UdpDatagrams);
    connect(&bindTimer, &QTimer::timeout, this, &ScanThread::bindSocket);
    if (isSpoolWorkingDirectory)
        reportFromAnyThread(
            tr("Nothing is sent or received: the spool directory is the working directory, "
               "and received files would be sent back"));
    else
        bindSocket();
    removalTimer.setSingleShot(true);
    connect(&removalTimer, &QTimer::timeout, this, &ScanThread::removeDelivered);
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
    connect(fileTransfer, &TFileTransfer::Trouble, this, &ScanThread::reportAboutPeer);
    connect(fileTransfer, &TFileTransfer::FileReceived, this,
        [this] { ++transferCounters.filesReceived; });
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
    Q_ASSERT(QThread::currentThread() == thread());
    if (removalTimer.isActive())
        removeDelivered();
    fileTransfer->receivedFiles().finish(longestFinish);
}

void ScanThread::stop()
{
    Q_ASSERT(QThread::currentThread() == thread());
    {
        const std::lock_guard lock(mutex);
        stopRequested = true;
    }
    requestInterruption(); // ends a compression
    stopCondition.notify_all();
    wait();
    const std::lock_guard lock(mutex); // see run()
}

// --- the scan thread ---

void ScanThread::run()
{
    scan();
    // Shows the thread sanitizer, with the lock in stop(), the order that wait() provides.
    const std::lock_guard lock(mutex);
}

void ScanThread::scan()
{
    Q_ASSERT(QThread::currentThread() == this);
    if (isSpoolWorkingDirectory)
        return;
    removeLeftoversOfTheDead(u"."_s); // of received files
    SpoolLock lock(spool, [this](const QString &line) { reportFromAnyThread(line); });
    // The peer may still acknowledge packets of a killed process, and this engine uses the same
    // transfer ids again. During the first interval it sends nothing and ignores such answers.
    nextScan = Clock::now() + scanInterval;
    while (waitForTurn()) {
        if (isSpoolFree(lock))
            handOverFirstFile();
    }
}

// Waits until a second has passed since the last scan and no transfer is in progress. Returns false
// as soon as stop() is called.
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
    const SpoolLock::State state = lock.removeIfStale();
    const bool isStuck = state == SpoolLock::State::Stuck;
    if (isStuck && !reportedStuckLock)
        reportFromAnyThread(
            tr("Can't remove the lock file of %1, nothing is sent").arg(spool.path()));
    reportedStuckLock = isStuck;
    return state == SpoolLock::State::Free;
}

void ScanThread::handOverFirstFile()
{
    passedOver.removeIf([&](auto file) { return spool.mark(file.key()) != file.value().mark; });
    const auto [name, hasForeign] =
        spool.first([this](const QString &candidate) { return isPassedOver(candidate); });
    if (hasForeign)
        hasFailedForeign = !spool.setForeignNamesAside(
            [this](const QString &line) { reportFromAnyThread(line); }, !hasFailedForeign);
    const std::optional<Mark> mark = name.isEmpty() ? std::nullopt : spool.mark(name);
    if (!mark)
        return;
    Q_ASSERT(!busy); // else these belong to the object's thread
    currentName = name;
    currentPath = spool.pathOf(name);
    currentMark = *mark;
    busy.store(true, std::memory_order_release);
    fileTransfer->OpenFile(currentPath);
}

bool ScanThread::isPassedOver(const QString &name) const
{
    const auto file = passedOver.constFind(name);
    return file != passedOver.cend() && Clock::now() < file->skippedUntil;
}

// --- what the engine reports ---

void ScanThread::on_FileSended()
{
    Q_ASSERT(busy);
    removalTimer.start(pauseBeforeRemoval);
}

void ScanThread::removeDelivered()
{
    removalTimer.stop();
    // Fails to match, and stays, if a newer file has taken the name since.
    const bool isRemoved =
        spool.remove(currentName, currentMark) != SpoolDirectory::Removal::Failed;
    const QString path = currentPath;
    release();
    ++transferCounters.filesDelivered;
    reportedShortage = false;

    qCDebug(transferCategory) << u"Transmitted file  "_s + path;
    Q_EMIT LogMessage((tr("Transmitted file") + u' ' + path).toUtf8());
    if (isRemoved)
        return;
    qCDebug(transferCategory) << u"Can't delete file "_s + path;
    Q_EMIT LogMessage((tr("Can't delete file") + u' ' + path).toUtf8());
}

void ScanThread::on_FileRefused(QString, QString reason)
{
    // If the file was replaced since, the new one may be fine and gets its own attempt.
    if (spool.mark(currentName) == currentMark)
        setAside(reason);
    release();
}

// Leaves the file in the spool for another attempt: the disk may recover, the permissions may be
// corrected, or the process may have free descriptors again.
void ScanThread::on_FileUnreadable(QString, int error)
{
    bool isNews = false;
    if (isShortage(error)) {
        isNews = !std::exchange(reportedShortage, true);
    } else if (error != ENOENT) { // else the file has left the spool
        isNews = !passedOver.contains(currentName) && passedOver.size() < maxReportedUnreadable;
        passedOver[currentName] = {currentMark, Clock::now() + unreadableRetryInterval};
    }
    if (isNews)
        report(tr("Can't read file %1, trying again: %2").arg(currentPath, qt_error_string(error)));
    release();
}

void ScanThread::on_FileForgotten()
{
    sendAfresh(tr("The peer has lost part of file %1, it is sent afresh"));
}

// Lets the scan thread take the next file.
void ScanThread::release()
{
    Q_ASSERT(QThread::currentThread() == thread());
    Q_ASSERT(busy);
    {
        const std::lock_guard lock(mutex);
        busy.store(false, std::memory_order_release);
    }
    stopCondition.notify_all();
}

void ScanThread::setAside(const QString &reason)
{
    const SpoolDirectory::SetAside result = spool.setAside(currentName);
    if (result == SpoolDirectory::SetAside::Gone)
        return;
    ++transferCounters.filesRefused;
    const bool isMoved = result == SpoolDirectory::SetAside::Moved;
    if (!isMoved)
        passedOver.insert(currentName, {currentMark, Clock::time_point::max()});
    const QString text =
        isMoved ? tr("Refused file %1: %2") : tr("Refused file %1, and can't move it: %2");
    report(text.arg(currentPath, reason));
}

// Abandons the transfer. The next scan opens the file again, with the next transfer id.
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
        if (reportedNoPort)
            reportFromAnyThread(tr("Using UDP port %1 now").arg(localPort));
        return;
    }
    if (!reportedNoPort)
        reportFromAnyThread(
            tr("Can't use UDP port %1: %2").arg(localPort).arg(udpSocket->errorString()));
    reportedNoPort = true;
    bindTimer.start(bindRetryInterval);
}

// Returns why nothing can be sent to the configured peer, or an empty text.
QString ScanThread::obstacle() const
{
    if (PeerAddress::isUnspecified(peerAddress))
        return tr("Nothing is sent: \"%1\" is not the numeric address of a peer").arg(remoteHost);
    // If the peer were this module, the engine would acknowledge its own packets.
    if (remotePort == localPort && PeerAddress::isThisHost(peerAddress))
        return tr("Nothing is sent: %1 with port %2 is this module itself")
            .arg(remoteHost)
            .arg(remotePort);
    return {};
}

// Looks for an obstacle every few seconds only, because that costs system calls. Reports a new one.
bool ScanThread::canSendToPeer()
{
    if (Clock::now() < nextObstacleCheck)
        return lastObstacle.isEmpty();
    nextObstacleCheck = Clock::now() + obstacleCheckInterval;
    const QString now = obstacle();
    if (std::exchange(lastObstacle, now) != now && !now.isEmpty())
        report(now);
    return now.isEmpty();
}

void ScanThread::SendData(QByteArray &packet)
{
    Q_ASSERT(QThread::currentThread() == thread());
    // An unbound socket would send from an arbitrary port, where no answer arrives.
    if (canSendToPeer() && udpSocket->state() == QAbstractSocket::BoundState)
        udpSocket->writeDatagram(packet, peerAddress, remotePort);
    debugDatagram("Send package   ", packet);

    const auto sent = Packet::read(packet);
    if (!sent)
        return;
    countSent(*sent, packet.size());
    if (sent->kind == Packet::StatusRequest && watch.countRequest(sent->id))
        sendAfresh(tr("The peer acknowledges no more of file %1, it is sent afresh"));
}

void ScanThread::countSent(const Packet &sent, qint64 bytes)
{
    if (sent.kind != Packet::Data)
        return;
    ++transferCounters.packetsSent;
    transferCounters.bytesSent += bytes;
    if (sentPackets.add(sent.id, sent.number))
        ++transferCounters.packetsRepeated;
}

void ScanThread::UdpDatagrams()
{
    // Do not ask hasPendingDatagrams() first. The kernel reports the socket as readable for a
    // datagram with a wrong checksum, but drops it when it is read. Without an attempt to read, Qt
    // would never enable the socket's notifier again.
    for (int i = 0; i < datagramsPerTurn; ++i) {
        QHostAddress sender;
        const qint64 size = udpSocket->readDatagram(
            datagramBuffer.data(), datagramBuffer.size(), onlyPeer ? &sender : nullptr, nullptr);
        if (size < 0)
            return;
        if (!onlyPeer || acceptsFrom(sender))
            takeDatagram(int(size));
    }
}

bool ScanThread::acceptsFrom(const QHostAddress &sender)
{
    if (sender.isEqual(peerAddress, QHostAddress::ConvertV4MappedToIPv4))
        return true;
    if (!std::exchange(reportedStranger, true))
        report(tr("Datagrams from %1 are dropped: it is not the peer").arg(sender.toString()));
    return false;
}

void ScanThread::takeDatagram(int size)
{
    const auto datagram = QByteArrayView(datagramBuffer).first(size);
    if (const auto packet = Packet::read(datagram)) {
        watch.received(*packet);
        transferCounters.lastPeerPacket = QDateTime::currentSecsSinceEpoch();
    }
    fileTransfer->ReceiveData(datagramBuffer.data(), size);
    debugDatagram("Received package   ", datagram);
}

// --- reports to the operator ---

// Queues a line for the object's thread, which reports it.
void ScanThread::reportFromAnyThread(const QString &line)
{
    const std::lock_guard lock(mutex);
    pendingLines.append(line);
    QMetaObject::invokeMethod(
        this, [this] { reportPending(); }, Qt::QueuedConnection);
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

// Limits the lines per minute, so that a peer that sends many bad files does not fill the log.
void ScanThread::reportAboutPeer(const QString &line)
{
    if (Clock::now() >= peerLinesUntil) {
        peerLinesUntil = Clock::now() + peerLinesTime;
        peerLineCount = 0;
    }
    if (++peerLineCount <= maxPeerLines)
        report(line);
    else if (peerLineCount == maxPeerLines + 1)
        report(tr("Further lines about received files are left out for a minute"));
}

void ScanThread::report(const QString &line)
{
    Q_ASSERT(QThread::currentThread() == thread());
    qCDebug(transferCategory) << line;
    pLog->Message(line, TLog::Priority::Warning);
    Q_EMIT LogMessage(line.toUtf8());
}
