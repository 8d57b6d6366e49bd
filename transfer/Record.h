#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// A data record as another module sends it: the data of one data frame of the bus.
//
//   field      encoding
//   kind       byte string: uint32 big-endian count, then the bytes; 0xFFFFFFFF is null
//   file name  uint32 big-endian count of bytes, then UTF-16 big-endian; 0xFFFFFFFF is null
//   payload    byte string
//
// Its spool file holds the kind's bytes directly followed by the payload.
struct DataRecord
{
    QByteArray kind;
    QString fileName;
    QByteArray payload;

    // Lenient: fields that run past the end read as empty; surplus bytes are ignored. Kind and
    // payload point into the bytes, which must outlive them: they may be many.
    [[nodiscard]] static DataRecord read(const QByteArray &bytes);
    [[nodiscard]] QByteArray write() const;

    // Records of any other kind are nobody's business here.
    [[nodiscard]] bool isAccepted() const;
    [[nodiscard]] QByteArray spoolContent() const { return kind + payload; }
};

// The TCP link carries a plain sequence of records: uint32 little-endian length, then as many
// bytes, the content of one spool file or the keep-alive text. A peer that acknowledges writes
// numbers in the other direction, uint64 little-endian: so many records of the connection, from its
// first, keep-alives among them, are stored for good.
namespace LinkRecord {

inline constexpr char keepAlive[] = "live";

inline constexpr qsizetype lengthSize = sizeof(quint32); // bytes in front of every body

[[nodiscard]] QByteArray make(const QByteArray &body);
// Appends a whole record whose body is in two pieces.
void append(QByteArray &records, QByteArrayView kind, QByteArrayView payload);
// Fills the first lengthSize bytes of a record whose body is in place.
void complete(QByteArray &record);

// Cuts a link's byte stream, in whatever pieces it arrives, into record bodies.
class Reader
{
public:
    // Longer records are refused. A body is gathered in memory.
    explicit Reader(quint32 maxBodyBytes = 1'000'000'000)
        : maxBody(maxBodyBytes)
    {
    }

    void append(const QByteArray &bytes) { buffer += bytes; }
    // The next whole body; nothing while it is incomplete, and for ever after an oversized length.
    [[nodiscard]] std::optional<QByteArray> next();
    // The announced length that was refused; 0 when none was.
    [[nodiscard]] quint32 refusedLength() const { return refused; }
    [[nodiscard]] bool isAtRecordBoundary() const { return buffer.isEmpty(); }
    // Bytes that complete the next record or, while it is not known, its length.
    [[nodiscard]] qsizetype missing() const;
    // What has come of the next record, its length included.
    [[nodiscard]] const QByteArray &unfinished() const { return buffer; }

private:
    QByteArray buffer;
    quint32 maxBody; // bytes
    quint32 refused = 0;
};

[[nodiscard]] QByteArray acknowledgement(quint64 storedRecords);

// Cuts what a peer sends, in whatever pieces it arrives, into its numbers. Keeps less than one of
// them when next() has returned nothing.
class AcknowledgementReader
{
public:
    void append(QByteArrayView bytes) { buffer += bytes; }
    [[nodiscard]] std::optional<quint64> next();

private:
    QByteArray buffer;
};

} // namespace LinkRecord
