#include "Record.h"

#include <QDataStream>
#include <QIODevice>
#include <QtEndian>

#include <array>

namespace {

constexpr int streamVersion = QDataStream::Qt_4_5;
constexpr std::array acceptedKinds = {"tempdb", "error", "tempdb_t"};

} // namespace

DataRecord DataRecord::read(const QByteArray &bytes)
{
    DataRecord record;
    QDataStream stream(bytes);
    stream.setVersion(streamVersion);
    quint32 count = 0;
    stream >> record.kind >> record.fileName >> count;
    const qsizetype at = qsizetype(stream.device()->pos());
    if (count <= quint64(bytes.size() - at)) // never so for a null one
        record.payload = QByteArray::fromRawData(bytes.constData() + at, qsizetype(count));
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
