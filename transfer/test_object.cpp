#include "test_object.h"

#include "TLog.h"
#include "TTransferData.h"

#include <QDateTime>
#include <QDebug>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QNetworkProxy>
#include <QUdpSocket>

#include <chrono>
#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto scanInterval = 1s;
constexpr auto deliveryPause = 500ms; // before a delivered file is removed
constexpr auto bindInterval = 3s; // between two attempts at a port that is taken
constexpr int receiveBufferBytes = 4 << 20; // the peer goes on sending during the delivery pause
constexpr int datagramsPerTurn = 256; // then timers get theirs, however many datagrams wait
constexpr qsizetype maxDatagram = 65'536; // bytes; no datagram is longer
constexpr unsigned short shortestTimeout = 1; // milliseconds; 0 would keep a core busy for ever

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

// Null and unspecified addresses mean this very host to the kernel: the engine would receive and
// acknowledge its own packets.
bool isPeerAddress(const QHostAddress &address)
{
    return !address.isNull() && address != QHostAddress(QHostAddress::AnyIPv4)
        && address != QHostAddress(QHostAddress::AnyIPv6);
}

} // namespace

bool AnswerWatch::isInVain(char requestId, Clock::time_point now)
{
    if (requestId != id) {
        id = requestId;
        isAnnounced = false;
    }
    const Clock::duration limit = std::max<Clock::duration>(patience, lastAnswer - firstAnswer);
    if (!isAnnounced || ++unanswered <= maxUnanswered || now - lastAnswer <= limit)
        return false;
    isAnnounced = false;
    return true;
}

void AnswerWatch::answered(char answerId, Clock::time_point now)
{
    if (answerId != id)
        return;
    if (!isAnnounced)
        firstAnswer = now;
    isAnnounced = true;
    unanswered = 0;
    lastAnswer = now;
}

ScanThread::ScanThread(QObject *parent, unsigned short ownPort, unsigned short peerPort,
    QString peerHost, unsigned short timeout, QString directory)
    : QThread(parent)
    , remotePort(peerPort)
    , remoteHost(peerHost)
    , spoolDir(directory)
    , fileTransfer(new TFileTransfer(std::max(timeout, shortestTimeout), 0, nullptr))
    , udpSocket(new QUdpSocket(this))
    , localPort(ownPort)
    , buffer(maxDatagram, '\0')
{
    // The system's proxy settings must not carry the packets anywhere else.
    udpSocket->setProxy(QNetworkProxy::NoProxy);
    connect(udpSocket, &QIODevice::readyRead, this, &ScanThread::UdpDatagrams);
    connect(&bindTimer, &QTimer::timeout, this, &ScanThread::bindSocket);
    bindSocket();
    connect(fileTransfer, &TFileTransfer::FileSended, this, &ScanThread::on_FileSended);
    connect(fileTransfer, &TFileTransfer::FileRefused, this, &ScanThread::on_FileRefused);
    connect(fileTransfer, &TFileTransfer::SendData, this, &ScanThread::SendData);
    connect(fileTransfer, &TFileTransfer::FileReceived, this, [this] { ++done.filesReceived; });
}

ScanThread::~ScanThread()
{
    stop();
    delete fileTransfer;
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
    removeLeftoversOfTheDead(u"."_s); // of received files
    SpoolLock lock(spoolDir, [this](const QString &line) { sayAnywhere(line); });
    // Transfer numbers begin anew with every engine. What a killed process has sent may still be
    // answered; an engine that is not sending ignores that.
    while (goOnAfter(scanInterval)) {
        if (!busy.load(std::memory_order_acquire) && isSpoolFree(lock))
            handOverFirstFile();
    }
}

// False as soon as somebody asks for the end.
bool ScanThread::goOnAfter(std::chrono::milliseconds pause)
{
    std::unique_lock guard(mutex);
    return !stopCondition.wait_for(guard, pause, [this] { return stopRequested; });
}

bool ScanThread::isSpoolFree(SpoolLock &lock)
{
    const SpoolLock::State state = lock.look();
    const bool isStuck = state == SpoolLock::State::Stuck;
    if (isStuck && !saidStuckLock)
        sayAnywhere(tr("Can't remove the lock file of %1, nothing is sent").arg(spoolDir));
    saidStuckLock = isStuck;
    return state == SpoolLock::State::Free;
}

void ScanThread::handOverFirstFile()
{
    const SpoolDirectory spool(spoolDir);
    unmovable.removeIf([&](auto file) { return spool.mark(file.key()) != file.value(); });
    bool hasForeign = false;
    const QString name = spool.first(
        [&](const QString &candidate) { return unmovable.contains(candidate); }, hasForeign);
    if (hasForeign)
        spool.setForeignNamesAside(
            [this](const QString &line) { sayAnywhere(line); }, hasFailedForeign);
    const std::optional<Mark> mark = name.isEmpty() ? std::nullopt : spool.mark(name);
    if (!mark)
        return;
    currentName = name;
    currentPath = spool.pathOf(name);
    currentMark = *mark;
    busy.store(true, std::memory_order_release);
    fileTransfer->OpenFile(currentPath);
}

// --- what the engine reports ---

void ScanThread::on_FileSended()
{
    std::this_thread::sleep_for(deliveryPause);
    const SpoolDirectory spool(spoolDir);
    const std::optional<Mark> mark = spool.mark(currentName);
    // A newer file that has taken the name meanwhile is not the delivered one.
    const bool isReplaced = mark && mark != currentMark;
    const bool isRemoved = isReplaced || spool.remove(currentName);
    const QString path = currentPath;
    busy.store(false, std::memory_order_release);
    ++done.filesDelivered;

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
    busy.store(false, std::memory_order_release);
}

void ScanThread::setAside(const QString &reason)
{
    const SpoolDirectory::SetAside result = SpoolDirectory(spoolDir).setAside(currentName);
    if (result == SpoolDirectory::SetAside::Gone)
        return;
    ++done.filesRefused;
    const bool isMoved = result == SpoolDirectory::SetAside::Moved;
    if (!isMoved)
        unmovable.insert(currentName, currentMark);
    const QString text =
        isMoved ? tr("Refused file %1: %2") : tr("Refused file %1, and can't move it: %2");
    say(text.arg(currentPath, reason));
}

// The next scan takes the file again, with the next transfer id.
void ScanThread::sendAfresh()
{
    fileTransfer->StopSending();
    const QString path = currentPath;
    busy.store(false, std::memory_order_release);
    say(tr("The peer acknowledges no more of file %1, it is sent afresh").arg(path));
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
            sayAnywhere(tr("Using UDP port %1 now").arg(localPort));
        return;
    }
    if (!saidNoPort)
        sayAnywhere(tr("Can't use UDP port %1: %2").arg(localPort).arg(udpSocket->errorString()));
    saidNoPort = true;
    bindTimer.start(bindInterval);
}

void ScanThread::SendData(QByteArray &packet)
{
    const QHostAddress address(remoteHost);
    const bool isAddress = isPeerAddress(address);
    if (!isAddress && !saidNoAddress)
        say(tr("Nothing is sent: \"%1\" is not the numeric address of a peer").arg(remoteHost));
    saidNoAddress = !isAddress;
    // Without its port the socket would take any other, to which no answer comes.
    if (isAddress && udpSocket->state() == QAbstractSocket::BoundState)
        udpSocket->writeDatagram(packet, address, remotePort);
    debugDatagram("Send package   ", packet);

    const auto sent = Packet::read(packet);
    if (sent)
        count(*sent, packet.size());
    if (sent && sent->kind == Packet::StatusRequest && watch.isInVain(sent->id))
        sendAfresh();
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
        const qint64 size = udpSocket->readDatagram(buffer.data(), buffer.size());
        if (size < 0)
            return;
        takeDatagram(int(size));
    }
}

void ScanThread::takeDatagram(int size)
{
    const auto packet = Packet::read(QByteArrayView(buffer).first(size));
    if (packet && packet->kind == Packet::Acknowledgement && packet->entryCount() > 0)
        watch.answered(packet->id);
    if (packet)
        done.lastAnswer = QDateTime::currentSecsSinceEpoch();
    fileTransfer->ReceiveData(buffer.data(), size);
    debugDatagram("Received package   ", QByteArrayView(buffer).first(size));
}

// --- what an operator should hear ---

// From any thread; heard a moment later.
void ScanThread::sayAnywhere(const QString &line)
{
    const std::lock_guard lock(mutex);
    pendingLines.append(line);
    // By name for the same reason as in the engine: nothing is shared outside the mutex.
    QMetaObject::invokeMethod(this, "sayPending", Qt::QueuedConnection);
}

void ScanThread::sayPending()
{
    QStringList lines;
    {
        const std::lock_guard lock(mutex);
        lines.swap(pendingLines);
    }
    for (const QString &line : std::as_const(lines))
        say(line);
}

void ScanThread::say(const QString &line)
{
    if (isDebugOn())
        qDebug() << line;
    if (pLog)
        pLog->Message(line, TLog::Priority::Warning);
    Q_EMIT LogMessage(line.toUtf8());
}
