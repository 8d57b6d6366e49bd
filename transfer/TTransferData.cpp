#include "TTransferData.h"

#include "FileCalls.h"
#include "FileName.h"
#include "FixedPace.h"
#include "ReceivedFiles.h"
#include "ZlibStream.h"

#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QTimerEvent>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Without a fixed pace: steps before control returns to the event loop, and the length of a tick
// that waits because of peer traffic.
constexpr int stepsPerTick = 512;
constexpr std::chrono::milliseconds quietPause(1);
constexpr char maxId = 127; // the next one is 0

// The sequence counter for the acknowledgements of all engines in this process.
std::atomic<quint8> s_chPacketCounter = 0;

TTransferData makeRecord(QByteArrayView bytes)
{
    Q_ASSERT(bytes.size() <= qsizetype(sizeof(TTransferData::data)));
    TTransferData record;
    std::memcpy(record.data, bytes.data(), size_t(bytes.size()));
    record.length = int(bytes.size());
    return record;
}

// Compares the payloads of two received records. Ignores the last byte, which is part of the
// packet's checksum.
bool isSamePayload(const TTransferData &one, const TTransferData &other)
{
    return one.length == other.length
        && (one.length == 0 || std::memcmp(one.data, other.data, size_t(one.length - 1)) == 0);
}

// Appends bytes to the packets of a file; all packets but the last are full. Returns false if the
// bytes need more packets than can be numbered.
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
        Q_ASSERT(record.length < Packet::maxPayload);
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
    , received(std::make_unique<ReceivedFiles>())
    , tickInterval(interval)
{
    connect(received.get(), &ReceivedFiles::written, this, &TFileTransfer::FileReceived);
    connect(received.get(), &ReceivedFiles::trouble, this, &TFileTransfer::Trouble);
    connect(received.get(), &ReceivedFiles::notClean, this, [this] {
        forgotten.clear();
        isRescued = false;
    });
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
    Q_ASSERT(QThread::currentThread() == thread());
    sending = false;
    ticker.stop();
}

void TFileTransfer::SendPath(QString path)
{
    receivePath = path;
}

void TFileTransfer::SendInfo(char *tag, QString text)
{
    Q_ASSERT(QThread::currentThread() == thread());
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
    QMetaObject::invokeMethod(
        this, [this] { takeHandedOver(); }, Qt::QueuedConnection);
}

void TFileTransfer::takeHandedOver()
{
    Outgoing outgoing;
    {
        const std::lock_guard lock(handOverMutex);
        Q_ASSERT(!handedOver.empty());
        outgoing = std::move(handedOver.front());
        handedOver.pop_front();
    }
    begin(std::move(outgoing));
}

TFileTransfer::Outgoing TFileTransfer::prepare(const QString &path)
{
    Outgoing outgoing;
    outgoing.path = path;
    const QString name = QFileInfo(path).fileName();
    if (InformationRecord::problemWith(name) != InformationRecord::NameProblem::None) {
        outgoing.refusalReason =
            tr("the name cannot be sent, it is longer than %1 characters or not "
               "in Latin-1")
                .arg(InformationRecord::maxName);
        return outgoing;
    }
    compress(outgoing);
    const quint16 count = quint16(outgoing.packets.size());
    outgoing.packets.insert(0, makeRecord(InformationRecord{count, name.toLatin1()}.write()));
    return outgoing;
}

void TFileTransfer::compress(Outgoing &outgoing)
{
    QFile file;
    struct stat info;
    const int descriptor = openRegularFile(outgoing.path, info);
    if (descriptor < 0
        || !file.open(descriptor, QFile::ReadOnly | QFile::Unbuffered, QFile::AutoCloseHandle)) {
        outgoing.readError = errno;
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
        outgoing.readError = errno != 0 ? errno : EIO;
        return;
    case ZlibStream::Result::SinkStopped:
        outgoing.refusalReason =
            tr("it has more than %1 bytes when compressed").arg(Packet::maxCompressed);
    }
}

void TFileTransfer::begin(Outgoing outgoing)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!outgoing.refusalReason.isEmpty()) {
        Q_EMIT FileRefused(outgoing.path, outgoing.refusalReason);
        return;
    }
    if (outgoing.readError != 0) {
        Q_EMIT FileUnreadable(outgoing.path, outgoing.readError);
        return;
    }
    txMap = std::move(outgoing.packets);
    txId = txId == maxId ? char(0) : char(txId + 1);
    infoAcked = false;
    peerHeld.begin(int(txMap.size()));
    sentList.clear();
    lastSentNumber = 0;
    tickCount = 0;
    sending = true;
    if (hasFixedPace())
        return ticker.start(tickInterval);
    const auto now = PacedSender::Clock::now();
    paced.begin(txMap.lastKey(), now);
    wakeAt(now, now);
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
    Q_ASSERT(QThread::currentThread() == thread());
    if (!sending)
        return;
    ++tickCount;
    ++idleTicks;
    if (!hasFixedPace())
        return sendPaced();
    if (idleTicks < quietTicks)
        return;
    if (tickCount > (infoAcked ? FixedPace::groupPackets : FixedPace::announcements))
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
    lastSentNumber = chosen.key();
    sentList.append(quint16(lastSentNumber));
    if (sentList.size() > Packet::maxListed)
        sentList.removeFirst();
    emitRecord(lastSentNumber, record);
}

void TFileTransfer::emitRecord(int number, const TTransferData &record)
{
    QByteArray packet = Packet::makeData(
        nextStamp(), txId, quint16(number), QByteArrayView(record.data, record.length));
    Q_EMIT SendData(packet);
}

// Chooses the first record that was sent less often than the lowest-numbered one; if there is none,
// the lowest-numbered one itself.
//
// Checking the record after the last one sent is enough. Until a counter wraps, either all records
// have been sent equally often, or those up to the last one sent once more than the rest. When all
// counters stand at 127, that of the lowest one wraps to -128; from then on no other is below it.
QMap<int, TTransferData>::iterator TFileTransfer::chooseRecord()
{
    const auto first = txMap.begin();
    if (!infoAcked)
        return first;
    const auto next = txMap.upperBound(lastSentNumber);
    return next != txMap.end() && next->sendCount < first->sendCount ? next : first;
}

// --- sending without a fixed pace ---

void TFileTransfer::sendPaced()
{
    const auto now = PacedSender::Clock::now();
    if (idleTicks < quietTicks)
        return wakeAt(now + quietPause, now);
    for (int i = 0; i < stepsPerTick && sending; ++i) { // a slot may stop the transfer
        const PacedSender::Step step = paced.next(now);
        if (const auto *wait = std::get_if<PacedSender::WaitUntil>(&step))
            return wakeAt(wait->time, now);
        if (const auto *request = std::get_if<PacedSender::SendRequest>(&step)) {
            emitTwice(Packet::makeStatusRequest(nextStamp(), txId, request->numbers));
            continue;
        }
        const int number = std::get<PacedSender::SendPacket>(step).number;
        if (const auto record = txMap.constFind(number); record != txMap.cend())
            emitRecord(number, *record);
    }
    if (sending)
        wakeAt(now, now);
}

void TFileTransfer::wakeAt(PacedSender::Time time, PacedSender::Time now)
{
    nextWake = time;
    ticker.startOnce(time - now);
}

void TFileTransfer::tellPacedSender(const Packet &acknowledgement)
{
    std::vector<quint16> numbers(size_t(acknowledgement.entryCount()));
    for (size_t i = 0; i < numbers.size(); ++i)
        numbers[i] = acknowledgement.entry(qsizetype(i));
    const auto now = PacedSender::Clock::now();
    paced.acknowledged(numbers, now);
    // Packets that this acknowledgement made room for may leave soon. The short wait lets further
    // acknowledgements arrive first.
    if (nextWake > now + PacedSender::reaction)
        wakeAt(now + PacedSender::reaction, now);
}

void TFileTransfer::receiveAcknowledgement(const Packet &packet)
{
    if (!sending || packet.id != txId || packet.entryCount() == 0)
        return;
    if (infoAcked)
        peerHeld.take(packet.held, txMap.size());
    else if (!HeldCount::isOfNewFile(packet.held))
        return; // it is about an older file with the same id
    for (qsizetype i = 0; i < packet.entryCount(); ++i) {
        const quint16 number = packet.entry(i);
        if (number == 0)
            infoAcked = true;
        sentList.removeAll(number);
        txMap.remove(number);
        if (txMap.isEmpty())
            return endSending();
    }
    if (!hasFixedPace() && infoAcked)
        tellPacedSender(packet);
}

// Emits last, because a slot may open the next file.
void TFileTransfer::endSending()
{
    StopSending();
    if (peerHeld.lacksSome())
        Q_EMIT FileForgotten();
    else
        Q_EMIT FileSended();
}

// --- receiving ---

bool TFileTransfer::ReceiveData(char *bytes, int size)
{
    Q_ASSERT(QThread::currentThread() == thread());
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
        // If the queue is full, packet 0 is dropped; the peer repeats it.
        if (received->isFull() || !beginReceiving(packet))
            return;
    } else if (!receiving || packet.id != rxId || packet.number > rxCount) {
        return;
    }
    const TTransferData record = makeRecord(packet.record);
    if (packet.number > 0)
        dropFromForgotten(packet.number, record);
    rxMap.insert(packet.number, record);
    if (rxCount >= 1 && rxMap.size() == rxCount + 1)
        completeFile();
    else if (!isRescued && !forgotten.isEmpty() && rxMap.size() + forgotten.size() == rxCount + 1)
        rescueFile();
}

bool TFileTransfer::beginReceiving(const Packet &packet)
{
    const std::optional<InformationRecord> record = InformationRecord::read(packet.record);
    if (!record)
        return false;
    const bool isSame = packet.id == rxId && rxMap.contains(0)
        && isSamePayload(rxMap[0], makeRecord(packet.record));
    if (!isSame)
        received->giveUpUnwritable();
    updateForgotten(isSame && receiving && !isRescued);
    rxCount = record->count;
    rxId = packet.id;
    rxMap.clear();
    receiving = true;
    return true;
}

// A late copy of packet 0 restarts the reception, but the sender never repeats packets that were
// acknowledged before it. They are no longer counted or acknowledged, as the sender expects, but
// they are kept here so that the file can still be written.
void TFileTransfer::updateForgotten(bool isLateCopy)
{
    if (!isLateCopy)
        forgotten.clear();
    else
        forgotten.insert(rxMap);
    forgotten.remove(0);
    isRescued = false;
}

// Drops the kept copy of a packet that arrives again. If the new packet differs, it belongs to
// another file, and all kept packets are dropped.
void TFileTransfer::dropFromForgotten(int number, const TTransferData &record)
{
    const auto before = rxMap.constFind(number);
    const auto kept = forgotten.constFind(number);
    const bool isOther = (before != rxMap.cend() && !isSamePayload(*before, record))
        || (kept != forgotten.cend() && !isSamePayload(*kept, record));
    if (isOther) {
        forgotten.clear();
        isRescued = false;
    } else {
        forgotten.remove(number);
    }
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
    forgotten.clear();
    // rescueFile() has already handed over the same packets.
    if (!std::exchange(isRescued, false))
        write(rxMap, false);
}

// Hands over the new packets together with the kept ones. If they come from two different files,
// the checksum fails and nothing is written.
void TFileTransfer::rescueFile()
{
    isRescued = true;
    QMap<int, TTransferData> packets = rxMap;
    packets.insert(forgotten);
    write(packets, true);
}

void TFileTransfer::write(const QMap<int, TTransferData> &packets, bool onlyIfClean)
{
    const TTransferData &first = packets.first();
    const auto information = InformationRecord::read(QByteArrayView(first.data, first.length));
    Q_ASSERT(information); // beginReceiving() has read the same bytes
    const QString name = QString::fromLatin1(information->name);
    if (isPlainName(name))
        received->write({name, receivePath + name, packets, onlyIfClean});
    else
        Q_EMIT Trouble(
            tr("A received file is not written, its name is not a plain one: %1").arg(name));
}
