#include "TTransferData.h"

#include "WholeFile.h"
#include "ZlibStream.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QTimerEvent>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr int announcingTicks = 2; // data packets between two status requests, see timerEvent()
constexpr int sendingTicks = 4;
constexpr qsizetype maxSentList = 25; // keeps a status request and its answer small
constexpr char maxId = 127; // the next one is 0

// Stamps the acknowledgements of all engines of this process.
std::atomic<quint8> s_chPacketCounter = 0;

// Nothing if the name cannot travel in an information record.
std::optional<QByteArray> wireName(const QString &name)
{
    const QByteArray bytes = name.toLatin1();
    if (bytes.size() > InformationRecord::maxName || QString::fromLatin1(bytes) != name)
        return std::nullopt;
    return bytes;
}

TTransferData makeRecord(QByteArrayView bytes)
{
    TTransferData record;
    std::memcpy(record.data, bytes.data(), size_t(bytes.size()));
    record.length = int(bytes.size());
    return record;
}

// A received record without the byte of the checksum behind it.
QByteArrayView payloadOf(const TTransferData &record)
{
    return QByteArrayView(record.data, std::max(record.length - 1, 0));
}

// Adds bytes to the packets of a file, which are full but for the last one. False once there are
// more than can be numbered.
bool cutIntoPackets(QMap<int, TTransferData> &packets, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        if (packets.isEmpty() || packets.last().length == Packet::maxPayload) {
            const int number = packets.isEmpty() ? 1 : packets.lastKey() + 1;
            if (number > Packet::maxNumber)
                return false;
            packets.insert(packets.cend(), number, TTransferData());
        }
        TTransferData &record = packets.last();
        const qsizetype size = std::min(bytes.size(), Packet::maxPayload - record.length);
        std::memcpy(record.data + record.length, bytes.data(), size_t(size));
        record.length += int(size);
        bytes = bytes.sliced(size);
    }
    return true;
}

} // namespace

TFileTransfer::TFileTransfer(int interval, int quiet, QObject *parent)
    : QObject(parent)
    , idleTicks(unsigned(quiet))
    , quietTicks(unsigned(quiet))
    , tickInterval(std::max(interval, 1))
{
    connect(&ticker, &TickTimer::ticked, this, &TFileTransfer::runTicks);
}

TFileTransfer::~TFileTransfer() = default;

void TFileTransfer::Stop()
{
    StopSending();
    receiving = false;
}

void TFileTransfer::StopSending()
{
    sending = false;
    ticker.stop();
}

void TFileTransfer::SendPath(QString path)
{
    receivePath = path;
}

void TFileTransfer::SendInfo(char *tag, QString text)
{
    QByteArray bytes = text.toLocal8Bit();
    if (bytes.size() > Packet::maxText) {
        qsizetype end = Packet::maxText;
        while (end > 0 && (uchar(bytes.at(end)) & 0xC0) == 0x80) // inside a UTF-8 character
            --end;
        bytes.truncate(end);
    }
    QByteArray packet =
        Packet::makeMessage(nextStamp(), QByteArrayView(tag, Packet::tagSize), bytes);
    Q_EMIT SendData(packet);
}

Packet::Stamp TFileTransfer::nextStamp()
{
    return {sequence++, station};
}

void TFileTransfer::emitTwice(QByteArray packet)
{
    Q_EMIT SendData(packet);
    Q_EMIT SendData(packet);
}

// --- a file to send: prepared on any thread, begun on the engine's ---

void TFileTransfer::OpenFile(QString path)
{
    Outgoing outgoing = prepare(path);
    if (outgoing.isAbandoned)
        return;
    if (QThread::currentThread() == thread())
        return begin(std::move(outgoing));
    const std::lock_guard lock(handOverMutex);
    handedOver.push_back(std::move(outgoing));
    // By its name: unlike a pointer to the member, which is kept in an object made here and read
    // there, this leaves nothing for the two threads to share outside the mutex.
    QMetaObject::invokeMethod(this, "takeHandedOver", Qt::QueuedConnection);
}

void TFileTransfer::takeHandedOver()
{
    Outgoing outgoing;
    {
        const std::lock_guard lock(handOverMutex);
        outgoing = std::move(handedOver.front());
        handedOver.pop_front();
    }
    begin(std::move(outgoing));
}

TFileTransfer::Outgoing TFileTransfer::prepare(const QString &path)
{
    Outgoing outgoing;
    outgoing.path = path;
    const std::optional<QByteArray> name = wireName(QFileInfo(path).fileName());
    if (!name) {
        outgoing.refusal = tr("the name cannot be sent, it is longer than %1 characters or not "
                              "in Latin-1")
                               .arg(InformationRecord::maxName);
        return outgoing;
    }
    compress(outgoing);
    const quint16 count = quint16(outgoing.packets.size());
    outgoing.packets.insert(0, makeRecord(InformationRecord{count, *name}.write()));
    return outgoing;
}

void TFileTransfer::compress(Outgoing &outgoing)
{
    QFile file;
    struct stat info;
    const int descriptor = openRegularFile(outgoing.path, info);
    if (descriptor < 0
        || !file.open(descriptor, QFile::ReadOnly | QFile::Unbuffered, QFile::AutoCloseHandle)) {
        outgoing.refusal = tr("it cannot be read: %1").arg(qt_error_string());
        return;
    }
    switch (ZlibStream::deflate(
        file, [&](QByteArrayView bytes) { return cutIntoPackets(outgoing.packets, bytes); })) {
    case ZlibStream::Result::Done:
        return;
    case ZlibStream::Result::Interrupted:
        outgoing.isAbandoned = true;
        return;
    case ZlibStream::Result::SourceFailed:
        outgoing.refusal = tr("it cannot be read: %1").arg(file.errorString());
        return;
    case ZlibStream::Result::SinkStopped:
        outgoing.refusal = tr("it has more than %1 bytes when compressed")
                               .arg(Packet::maxNumber * Packet::maxPayload);
    }
}

void TFileTransfer::begin(Outgoing outgoing)
{
    if (!outgoing.refusal.isEmpty()) {
        Q_EMIT FileRefused(outgoing.path, outgoing.refusal);
        return;
    }
    txMap = std::move(outgoing.packets);
    txId = txId == maxId ? char(0) : char(txId + 1);
    infoAcked = false;
    sentList.clear();
    lastSent = 0;
    tickCount = 0;
    sending = true;
    ticker.start(tickInterval);
}

// --- sending ---

void TFileTransfer::runTicks(int count)
{
    QTimerEvent tick(0);
    while (sending && count-- > 0)
        timerEvent(&tick);
}

void TFileTransfer::timerEvent(QTimerEvent *)
{
    if (!sending)
        return;
    ++tickCount;
    ++idleTicks;
    if (idleTicks < quietTicks)
        return;
    if (tickCount > (infoAcked ? sendingTicks : announcingTicks))
        sendStatusRequest();
    else if (!txMap.isEmpty())
        sendNextRecord();
}

void TFileTransfer::sendStatusRequest()
{
    tickCount = 0;
    emitTwice(Packet::makeStatusRequest(nextStamp(), txId, sentList));
}

void TFileTransfer::sendNextRecord()
{
    const auto chosen = chooseRecord();
    TTransferData &record = chosen.value();
    record.sendCount = qint8(record.sendCount + 1);
    lastSent = chosen.key();
    sentList.append(quint16(lastSent));
    if (sentList.size() > maxSentList)
        sentList.removeFirst();
    QByteArray packet = Packet::makeData(
        nextStamp(), txId, quint16(lastSent), QByteArrayView(record.data, record.length));
    Q_EMIT SendData(packet);
}

// The first record that was sent less often than the lowest-numbered one, else that one itself.
//
// Only the record after the last one sent can be it. While no count has wrapped, the records up to
// the last one sent have been sent once more than those behind it, or all equally often. Once they
// stand at 127, the lowest one wraps to -128; from then on the others are never below it.
QMap<int, TTransferData>::iterator TFileTransfer::chooseRecord()
{
    const auto first = txMap.begin();
    if (!infoAcked)
        return first;
    const auto next = txMap.upperBound(lastSent);
    return next != txMap.end() && next->sendCount < first->sendCount ? next : first;
}

void TFileTransfer::receiveAcknowledgement(const Packet &packet)
{
    if (!sending || packet.id != txId)
        return;
    for (qsizetype i = 0; i < packet.entryCount(); ++i) {
        const quint16 number = packet.entry(i);
        if (number == 0)
            infoAcked = true;
        sentList.removeAll(number);
        txMap.remove(number);
        if (txMap.isEmpty()) {
            StopSending();
            Q_EMIT FileSended(); // a slot may open the next file
            return;
        }
    }
}

// --- receiving ---

bool TFileTransfer::ReceiveData(char *bytes, int size)
{
    const QByteArrayView datagram(bytes, size);
    const std::optional<Packet> packet = Packet::read(datagram);
    if (!packet)
        return Packet::isMarked(datagram);
    switch (packet->kind) {
    case Packet::Data:
        receiveRecord(*packet);
        break;
    case Packet::StatusRequest:
        answerStatusRequest(*packet);
        break;
    case Packet::Acknowledgement:
        receiveAcknowledgement(*packet);
        break;
    }
    return true;
}

void TFileTransfer::receiveRecord(const Packet &packet)
{
    idleTicks = 0;
    if (packet.number == 0) {
        if (!beginReceiving(packet))
            return;
    } else if (!receiving || packet.id != rxId || packet.number > rxCount) {
        return;
    }
    rxMap.insert(packet.number, makeRecord(packet.record));
    if (rxCount >= 1 && rxMap.size() == rxCount + 1)
        completeFile();
}

bool TFileTransfer::beginReceiving(const Packet &packet)
{
    const std::optional<InformationRecord> record = InformationRecord::read(packet.record);
    if (!record)
        return false;
    rxCount = record->count;
    rxId = packet.id;
    rxMap.clear();
    receiving = true;
    return true;
}

void TFileTransfer::answerStatusRequest(const Packet &packet)
{
    idleTicks = 0;
    if (packet.id != rxId)
        return;
    std::vector<quint16> held;
    for (qsizetype i = 0; i < packet.entryCount(); ++i) {
        if (rxMap.contains(packet.entry(i)))
            held.push_back(packet.entry(i));
    }
    std::sort(held.begin(), held.end());
    const quint8 counter = s_chPacketCounter++;
    emitTwice(Packet::makeAcknowledgement({counter, station}, packet.id, held, rxMap.size()));
}

void TFileTransfer::completeFile()
{
    receiving = false;
    const TTransferData &first = rxMap.first();
    const auto information = InformationRecord::read(QByteArrayView(first.data, first.length));
    const QString name = QString::fromLatin1(information->name);
    if (!isPlainName(name))
        qWarning() << "A file is not written, its name is not a plain one:" << name;
    else if (writeReceived(receivePath + name))
        Q_EMIT FileReceived(name);
}

// A corrupt stream gives a file of what can be inflated of it.
bool TFileTransfer::writeReceived(const QString &path) const
{
    WholeFile file(path);
    ZlibStream::Inflater inflater([&](QByteArrayView bytes) { return file.write(bytes); });
    for (auto record = std::next(rxMap.cbegin()); record != rxMap.cend(); ++record) {
        if (!inflater.write(payloadOf(*record)))
            break;
    }
    return file.commit();
}
