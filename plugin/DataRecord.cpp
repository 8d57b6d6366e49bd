#include "DataRecord.h"

#include <QDataStream>
#include <QIODevice>
#include <QtEndian>

#include <algorithm>

namespace {

constexpr int streamVersion = QDataStream::Qt_4_5;
constexpr quint32 nullCount = 0xFFFFFFFF;

// Reads as QDataStream does, at a fraction of its cost for a small record.
class Fields
{
public:
    explicit Fields(QByteArrayView bytes)
        : rest(bytes)
    {
    }
    // Returns a field without copying it. A count that goes beyond the end consumes all that is
    // left and returns an empty field.
    QByteArray bytes()
    {
        const quint32 count = number();
        if (count == nullCount)
            return {};
        const QByteArrayView field = take(count);
        return QByteArray::fromRawData(field.data(), field.size());
    }
    // A text whose count ends within a character is empty, and its bytes belong to the next field.
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
