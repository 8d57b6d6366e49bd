#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QtEndian>

#include <optional>
#include <span>

// One packet of the file transfer, which travels as one datagram. Multi-byte numbers are
// big-endian, except the length of a data packet:
//
//   offset    size  field
//   0         2     markers        A4 D5; a datagram with either one in place counts as a packet
//   2         1     sequence       counter of the sender, wraps; not checked
//   3         2     station        number of the sending engine; not checked
//   5         2     length         by kind; read in acknowledgements only
//   7         1     record count   1
//   8         1     record length  by kind; read in data packets and acknowledgements
//   9         1     kind           B1 data, B2 status request, B3 acknowledgement, B4 information
//   10              body           by kind
//   last two  2     checksum       low 16 bits of the sum of all bytes before it, each taken as a
//                                  signed number; not checked
//
//   kind             length                       record length  body
//   data             payload bytes, low first     payload + 1    id, number (2), payload (0 to 250)
//   status request   0D 00                        2              id, count (2), numbers (2 each)
//   acknowledgement  low byte of held + 12, 00    held + 3       id, count (2), numbers (2 each)
//   information      text + 17                    text + 7       tag (5), text length (1), text
//
// id identifies the transfer, 0 to 127. held is the number of records that the acknowledging side
// holds. Data packet 0 carries the information record, packets 1 to 65535 the compressed file.
struct Packet
{
    enum Kind : uchar { Data = 0xB1, StatusRequest = 0xB2, Acknowledgement = 0xB3, Message = 0xB4 };

    static constexpr qsizetype maxPayload = 250;
    static constexpr qsizetype maxRecord = maxPayload + 1; // with the first byte of the checksum
    static constexpr int maxNumber = 65'535;
    static constexpr qint64 maxCompressed = maxNumber * maxPayload; // bytes of one file
    static constexpr qsizetype tagSize = 5;
    static constexpr qsizetype maxText = 248; // bytes; more would not fit the record length
    // Packet numbers in a status request that we send; keeps it and its answer small. A peer's
    // request may list more.
    static constexpr qsizetype maxListed = 25;

    // The sender's fields in every packet.
    struct Stamp
    {
        quint8 sequence;
        quint16 station;
    };

    uchar kind = 0; // Data, StatusRequest or Acknowledgement
    char id = 0;

    // In data packets only. The record is the payload and the first byte of the checksum.
    quint16 number = 0;
    QByteArrayView record;

    // In the other kinds only: whole entries.
    QByteArrayView entries;
    // In acknowledgements only: the low 8 bits, or nothing if the two fields disagree.
    std::optional<quint8> held;

    [[nodiscard]] qsizetype entryCount() const { return entries.size() / 2; }
    [[nodiscard]] quint16 entry(qsizetype index) const
    {
        Q_ASSERT(index >= 0 && index < entryCount());
        return qFromBigEndian<quint16>(entries.data() + 2 * index);
    }

    // Returns whether a datagram has a packet marker.
    [[nodiscard]] static bool isMarked(QByteArrayView datagram);
    // Parses a datagram. Returns nullopt if it has no marker, is of another kind, is shorter than
    // its fields say or has a record longer than maxRecord. The result points into the datagram.
    [[nodiscard]] static std::optional<Packet> read(QByteArrayView datagram);

    // Make whole packets. payload has at most maxPayload bytes, tag exactly tagSize, text at most
    // maxText.
    [[nodiscard]] static QByteArray makeData(
        Stamp stamp, char id, quint16 number, QByteArrayView payload);
    [[nodiscard]] static QByteArray makeStatusRequest(
        Stamp stamp, char id, std::span<const quint16> numbers);
    [[nodiscard]] static QByteArray makeAcknowledgement(
        Stamp stamp, char id, std::span<const quint16> numbers, qsizetype held);
    [[nodiscard]] static QByteArray makeMessage(
        Stamp stamp, QByteArrayView tag, QByteArrayView text);
};

// The payload of data packet number 0.
//
//   offset  size  field
//   0       2     count  big-endian, data packets that carry the compressed file
//   2             name   of the file, without directory, Latin-1
struct InformationRecord
{
    static constexpr qsizetype maxName = 97; // bytes; peers store the record in 100 bytes

    enum class NameProblem { None, NotLatin1, TooLong };
    // Returns why the record cannot carry this name.
    [[nodiscard]] static NameProblem problemWith(const QString &name);

    quint16 count = 0;
    QByteArray name;

    // Parses the record of a data packet, which ends with a byte of the checksum. Returns nullopt
    // if the record is too short or the name is longer than maxName.
    [[nodiscard]] static std::optional<InformationRecord> read(QByteArrayView record);
    [[nodiscard]] QByteArray write() const;
};
