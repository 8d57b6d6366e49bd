#include "LinkRecord.h"

#include <QtEndian>

QByteArray LinkRecord::make(const QByteArray &body)
{
    QByteArray record = QByteArray(lengthSize, Qt::Uninitialized) + body;
    complete(record);
    return record;
}

void LinkRecord::append(QByteArray &records, QByteArrayView kind, QByteArrayView payload)
{
    Q_ASSERT(kind.size() + payload.size() <= maxBodySize);
    char length[lengthSize];
    qToLittleEndian(quint32(kind.size() + payload.size()), length);
    records.append(length, lengthSize).append(kind).append(payload);
}

void LinkRecord::complete(QByteArray &record)
{
    Q_ASSERT(record.size() >= lengthSize && record.size() - lengthSize <= maxBodySize);
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
