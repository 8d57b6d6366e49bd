#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QtEndian>

#include <optional>
#include <span>

// One packet of the file transfer. Each travels as one datagram. Numbers of several bytes are
// big-endian, except the length of a data packet:
//
//   offset    size  field
//   0         2     markers        A4 D5; either one in its place makes a datagram a packet
//   2         1     sequence       counter of the emitting side, wraps; nobody checks it
//   3         2     station        number of the emitting engine; nobody checks it
//   5         2     length         by kind; read in acknowledgements only
//   7         1     record count   1
//   8         1     record length  by kind; read in data packets and acknowledgements
//   9         1     kind           B1 data, B2 status request, B3 acknowledgement, B4 information
//   10              body           by kind
//   last two  2     checksum       low 16 bits of the sum of all bytes before it, each taken as a
//                                  signed number; nobody checks it
//
//   kind             length                       record length  body
//   data             payload bytes, low first     payload + 1    id, number (2), payload (0 to 250)
//   status request   0D 00                        2              id, count (2), numbers (2 each)
//   acknowledgement  low byte of held + 12, 00    held + 3       id, count (2), numbers (2 each)
//   information      text + 17                    text + 7       tag (5), text length (1), text
//
// id is the transfer's, 0 to 127. held is how many records the acknowledging side has. Data packet
// number 0 carries the information record, the others up to number 65535 the compressed file.
struct Packet
{
    enum Kind : uchar { Data = 0xB1, StatusRequest = 0xB2, Acknowledgement = 0xB3, Message = 0xB4 };

    static constexpr qsizetype maxPayload = 250;
    static constexpr qsizetype maxRecord = maxPayload + 1; // as it is read, see below
    static constexpr int maxNumber = 65'535;
    static constexpr qsizetype tagSize = 5;
    static constexpr qsizetype maxText = 248; // bytes; more would not fit the record length

    // What the emitting engine stamps every packet with.
    struct Stamp
    {
        quint8 sequence;
        quint16 station;
    };

    uchar kind = 0; // Data, StatusRequest or Acknowledgement
    char id = 0;
    quint16 number = 0; // of a data packet
    QByteArrayView record; // of a data packet: the payload and the first byte of the checksum
    QByteArrayView entries; // of the other kinds, whole
    std::optional<quint8> held; // of an acknowledgement: low 8 bits; none if its fields disagree

    [[nodiscard]] qsizetype entryCount() const { return entries.size() / 2; }
    [[nodiscard]] quint16 entry(qsizetype index) const
    {
        return qFromBigEndian<quint16>(entries.data() + 2 * index);
    }

    // Whether a datagram is meant to be a packet at all.
    [[nodiscard]] static bool isMarked(QByteArrayView datagram);
    // Nothing for what is to be ignored: no marker, another kind, a datagram that is shorter than
    // it claims, a record that no sender makes. The result points into the datagram.
    [[nodiscard]] static std::optional<Packet> read(QByteArrayView datagram);

    // Whole packets. A payload has at most maxPayload bytes, a tag tagSize, a text maxText.
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
    static constexpr qsizetype maxName = 97; // bytes; receivers keep the record in 100

    quint16 count = 0;
    QByteArray name;

    // From a data packet's record, the byte of the checksum included. Nothing if it is too short
    // for its count or its name is longer than maxName.
    [[nodiscard]] static std::optional<InformationRecord> read(QByteArrayView record);
    [[nodiscard]] QByteArray write() const;
};
