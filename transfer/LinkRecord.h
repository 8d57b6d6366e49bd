#pragma once

#include <QByteArray>

#include <optional>

// The TCP link carries a plain sequence of records. Each is a uint32 little-endian length and a
// body of that many bytes: the content of one spool file, or the keep-alive text. A peer that
// acknowledges sends numbers, uint64 little-endian. Each is the count of records that it has stored
// since the connection began, including keep-alives.
namespace LinkRecord {

inline constexpr char keepAlive[] = "live";

inline constexpr qsizetype lengthSize = sizeof(quint32); // bytes in front of every body
inline constexpr qsizetype maxBodySize = 0xFFFFFFFF; // bytes

[[nodiscard]] QByteArray make(const QByteArray &body);
// Appends a whole record with the body kind + payload.
void append(QByteArray &records, QByteArrayView kind, QByteArrayView payload);
// Writes the length into the first lengthSize bytes of a record. The body follows them already.
void complete(QByteArray &record);

// Splits a link's byte stream, which arrives in arbitrary pieces, into record bodies.
class Reader
{
public:
    // Refuses records whose body is longer than maxBodyBytes, because a body is kept in memory.
    explicit Reader(quint32 maxBodyBytes = 1'000'000'000)
        : maxBody(maxBodyBytes)
    {
    }

    void append(const QByteArray &bytes) { buffer += bytes; }
    // Returns the next whole body. Returns nullopt while it is incomplete, and always after a
    // refused length.
    [[nodiscard]] std::optional<QByteArray> next();
    // Returns the length that was refused, or 0.
    [[nodiscard]] quint32 refusedLength() const { return refused; }
    [[nodiscard]] bool isAtRecordBoundary() const { return buffer.isEmpty(); }
    // Returns how many bytes complete the next record or, if its length is unknown, that length.
    [[nodiscard]] qsizetype missing() const;
    // Returns the bytes of the next record that have arrived, including its length.
    [[nodiscard]] const QByteArray &unfinished() const { return buffer; }

private:
    QByteArray buffer;
    quint32 maxBody; // bytes
    quint32 refused = 0;
};

[[nodiscard]] QByteArray acknowledgement(quint64 storedRecords);

// Splits the peer's byte stream, which arrives in arbitrary pieces, into its numbers. After next()
// has returned nullopt, less than one number is kept.
class AcknowledgementReader
{
public:
    void append(QByteArrayView bytes) { buffer += bytes; }
    [[nodiscard]] std::optional<quint64> next();

private:
    QByteArray buffer;
};

} // namespace LinkRecord
