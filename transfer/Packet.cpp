#include "Packet.h"

namespace {

constexpr uchar firstMarker = 0xA4;
constexpr uchar secondMarker = 0xD5;
constexpr char recordCount = 1;

// Offsets of the fields, see Packet.h.
constexpr qsizetype lengthAt = 5;
constexpr qsizetype recordLengthAt = 8;
constexpr qsizetype kindAt = 9;
constexpr qsizetype idAt = 10;
constexpr qsizetype numberAt = 11; // in other kinds than data packets: the count of entries
constexpr qsizetype bodyAt = 13; // the payload or the entries
constexpr qsizetype countSize = 2; // bytes before the name in the information record
constexpr qsizetype checksumRest = 1; // bytes of the checksum that count as part of a record

// What the length fields of each kind add to the size of the content.
constexpr qsizetype statusRequestLength = 0x0D;
constexpr qsizetype statusRequestRecord = 2;
constexpr qsizetype acknowledgementLength = 12;
constexpr qsizetype acknowledgementRecord = 3;
constexpr qsizetype messageLength = 17;
constexpr qsizetype messageRecord = 7;

quint16 numberIn(QByteArrayView bytes, qsizetype offset)
{
    return qFromBigEndian<quint16>(bytes.data() + offset);
}

void append16(QByteArray &bytes, qsizetype number)
{
    bytes.append(char(number >> 8)).append(char(number));
}

// Makes the first ten bytes. The length field is passed as two bytes, in wire order.
QByteArray header(Packet::Stamp stamp, char firstLength, char secondLength, qsizetype recordLength,
    Packet::Kind kind)
{
    QByteArray bytes;
    bytes.reserve(bodyAt + Packet::maxPayload + 2);
    bytes.append(char(firstMarker)).append(char(secondMarker)).append(char(stamp.sequence));
    append16(bytes, stamp.station);
    bytes.append(firstLength).append(secondLength).append(recordCount);
    return bytes.append(char(recordLength)).append(char(kind));
}

QByteArray withChecksum(QByteArray bytes)
{
    qint32 sum = 0;
    for (const char byte : std::as_const(bytes))
        sum += qint8(byte);
    append16(bytes, sum);
    return bytes;
}

QByteArray withEntries(QByteArray bytes, char id, std::span<const quint16> numbers)
{
    Q_ASSERT(numbers.size() <= size_t(Packet::maxNumber)); // their count has 16 bits
    bytes.append(id);
    append16(bytes, qsizetype(numbers.size()));
    for (const quint16 number : numbers)
        append16(bytes, number);
    return withChecksum(std::move(bytes));
}

// Returns how many packets the sender of an acknowledgement holds. Both length fields contain it;
// returns nullopt if they disagree.
std::optional<quint8> heldIn(QByteArrayView datagram)
{
    const quint8 held = quint8(uchar(datagram[lengthAt]) - acknowledgementLength);
    if (quint8(uchar(datagram[recordLengthAt]) - acknowledgementRecord) != held)
        return std::nullopt;
    return held;
}

} // namespace

// --- reading ---

bool Packet::isMarked(QByteArrayView datagram)
{
    return (datagram.size() > 0 && uchar(datagram[0]) == firstMarker)
        || (datagram.size() > 1 && uchar(datagram[1]) == secondMarker);
}

std::optional<Packet> Packet::read(QByteArrayView datagram)
{
    if (!isMarked(datagram) || datagram.size() < bodyAt)
        return std::nullopt;
    Packet packet;
    packet.kind = uchar(datagram[kindAt]);
    packet.id = datagram[idAt];
    const bool isData = packet.kind == Data;
    if (!isData && packet.kind != StatusRequest && packet.kind != Acknowledgement)
        return std::nullopt;

    const quint16 number = numberIn(datagram, numberAt);
    const qsizetype size = isData ? uchar(datagram[recordLengthAt]) : 2 * qsizetype(number);
    if (datagram.size() - bodyAt < size || (isData && size > maxRecord))
        return std::nullopt;
    (isData ? packet.record : packet.entries) = datagram.sliced(bodyAt, size);
    if (isData)
        packet.number = number;
    if (packet.kind == Acknowledgement)
        packet.held = heldIn(datagram);
    return packet;
}

std::optional<InformationRecord> InformationRecord::read(QByteArrayView record)
{
    const qsizetype nameSize = record.size() - countSize - checksumRest;
    if (nameSize < 0 || nameSize > maxName)
        return std::nullopt;
    return InformationRecord{numberIn(record, 0), record.sliced(countSize, nameSize).toByteArray()};
}

InformationRecord::NameProblem InformationRecord::problemWith(const QString &name)
{
    if (QString::fromLatin1(name.toLatin1()) != name)
        return NameProblem::NotLatin1;
    return name.size() > maxName ? NameProblem::TooLong : NameProblem::None;
}

// --- writing ---

QByteArray Packet::makeData(Stamp stamp, char id, quint16 number, QByteArrayView payload)
{
    Q_ASSERT(payload.size() <= maxPayload);
    const qsizetype size = payload.size();
    QByteArray bytes = header(stamp, char(size), char(size >> 8), size + checksumRest, Data);
    bytes.append(id);
    append16(bytes, number);
    return withChecksum(std::move(bytes.append(payload)));
}

QByteArray Packet::makeStatusRequest(Stamp stamp, char id, std::span<const quint16> numbers)
{
    return withEntries(
        header(stamp, statusRequestLength, 0, statusRequestRecord, StatusRequest), id, numbers);
}

QByteArray Packet::makeAcknowledgement(
    Stamp stamp, char id, std::span<const quint16> numbers, qsizetype held)
{
    return withEntries(header(stamp, char(held + acknowledgementLength), 0,
                           held + acknowledgementRecord, Acknowledgement),
        id, numbers);
}

QByteArray Packet::makeMessage(Stamp stamp, QByteArrayView tag, QByteArrayView text)
{
    Q_ASSERT(tag.size() >= tagSize && text.size() <= maxText);
    const qsizetype length = text.size() + messageLength;
    QByteArray bytes =
        header(stamp, char(length >> 8), char(length), text.size() + messageRecord, Message);
    bytes.append(tag.first(tagSize)).append(char(text.size())).append(text);
    return withChecksum(std::move(bytes));
}

QByteArray InformationRecord::write() const
{
    QByteArray bytes;
    append16(bytes, count);
    return bytes + name;
}
