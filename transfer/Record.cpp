#include "Record.h"

#include <QDataStream>
#include <QIODevice>
#include <QtEndian>

#include <algorithm>
#include <array>

namespace {

constexpr int streamVersion = QDataStream::Qt_4_5;
constexpr quint32 nullCount = 0xFFFFFFFF;
constexpr std::array acceptedKinds = {"tempdb", "error", "tempdb_t"};

// Reads as QDataStream does, at a fraction of its cost for a small record.
class Fields
{
public:
    explicit Fields(QByteArrayView bytes)
        : rest(bytes)
    {
    }
    // Without a copy. A count that goes beyond the end takes all that is left, and gives nothing.
    QByteArray bytes()
    {
        const quint32 count = number();
        if (count == nullCount)
            return {};
        const QByteArrayView field = take(count);
        return QByteArray::fromRawData(field.data(), field.size());
    }
    // The bytes of a text that ends within a character belong to the next field.
    QString text()
    {
        const quint32 count = number();
        if (count == nullCount || count % sizeof(char16_t) != 0)
            return {};
        const QByteArrayView field = take(count);
        QString text(field.size() / qsizetype(sizeof(char16_t)), Qt::Uninitialized);
        qFromBigEndian<char16_t>(field.data(), text.size(), text.data());
        return text;
    }

private:
    quint32 number()
    {
        const QByteArrayView field = take(sizeof(quint32));
        return field.isEmpty() ? 0 : qFromBigEndian<quint32>(field.data());
    }
    QByteArrayView take(quint32 size)
    {
        const QByteArrayView field =
            size <= quint64(rest.size()) ? rest.first(qsizetype(size)) : QByteArrayView();
        rest = rest.sliced(std::min<qsizetype>(qsizetype(size), rest.size()));
        return field;
    }

    QByteArrayView rest;
};

} // namespace

DataRecord DataRecord::read(const QByteArray &bytes)
{
    Fields fields(bytes);
    DataRecord record;
    record.kind = fields.bytes();
    record.fileName = fields.text();
    record.payload = fields.bytes();
    return record;
}

QByteArray DataRecord::write() const
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(streamVersion);
    stream << kind << fileName << payload;
    return bytes;
}

bool DataRecord::isAccepted() const
{
    return std::find(acceptedKinds.begin(), acceptedKinds.end(), kind) != acceptedKinds.end();
}

QByteArray LinkRecord::make(const QByteArray &body)
{
    QByteArray record = QByteArray(lengthSize, Qt::Uninitialized) + body;
    complete(record);
    return record;
}

void LinkRecord::append(QByteArray &records, QByteArrayView kind, QByteArrayView payload)
{
    char length[lengthSize];
    qToLittleEndian(quint32(kind.size() + payload.size()), length);
    records.append(length, lengthSize).append(kind).append(payload);
}

void LinkRecord::complete(QByteArray &record)
{
    qToLittleEndian(quint32(record.size() - lengthSize), record.data());
}

qsizetype LinkRecord::Reader::missing() const
{
    if (buffer.size() < lengthSize)
        return lengthSize - buffer.size();
    return lengthSize + qsizetype(qFromLittleEndian<quint32>(buffer.constData())) - buffer.size();
}

std::optional<QByteArray> LinkRecord::Reader::next()
{
    if (refused != 0 || buffer.size() < lengthSize)
        return std::nullopt;
    const quint32 length = qFromLittleEndian<quint32>(buffer.constData());
    if (length > maxBody) {
        refused = length;
        return std::nullopt;
    }
    if (buffer.size() - lengthSize < qsizetype(length))
        return std::nullopt;
    const QByteArray body = buffer.sliced(lengthSize, length);
    buffer.remove(0, lengthSize + length);
    return body;
}

QByteArray LinkRecord::acknowledgement(quint64 storedRecords)
{
    QByteArray bytes(sizeof(storedRecords), Qt::Uninitialized);
    qToLittleEndian(storedRecords, bytes.data());
    return bytes;
}

std::optional<quint64> LinkRecord::AcknowledgementReader::next()
{
    if (buffer.size() < qsizetype(sizeof(quint64)))
        return std::nullopt;
    const auto number = qFromLittleEndian<quint64>(buffer.constData());
    buffer.remove(0, sizeof(quint64));
    return number;
}
