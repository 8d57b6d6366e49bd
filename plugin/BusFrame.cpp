#include "BusFrame.h"

#include <QDataStream>
#include <QIODevice>
#include <QtEndian>

#include <algorithm>
#include <limits>

namespace {

constexpr int streamVersion = QDataStream::Qt_4_5;
constexpr quint32 nullCount = 0xFFFFFFFF;
constexpr qint8 actionFlag = 1;
constexpr qint16 actionFields[] = {-1, -1, 0, 0, 0};
constexpr qsizetype dataOffset = sizeof(uchar) + sizeof(quint32); // in the body of a data frame

bool isControlKind(uchar kind)
{
    return kind == BusFrame::Name || kind == BusFrame::Action || kind == BusFrame::Command
        || kind == BusFrame::BusMessage;
}

template <typename... Fields> QByteArray frame(uchar kind, const Fields &...fields)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(streamVersion);
    stream << qint32(0) << quint8(kind);
    (stream << ... << fields);
    Q_ASSERT(bytes.size() <= std::numeric_limits<qint32>::max());
    stream.device()->seek(0);
    stream << qint32(bytes.size() - qsizetype(sizeof(qint32)));
    return bytes;
}

// Reads one field after the other from the front of a body.
class Fields
{
public:
    explicit Fields(QByteArrayView body)
        : rest(body)
    {
    }
    // If too few bytes are left, consumes them and returns 0.
    template <typename Number> Number number()
    {
        const QByteArrayView bytes = take(sizeof(Number));
        return bytes.isEmpty() ? Number(0) : qFromBigEndian<Number>(bytes.data());
    }
    QByteArrayView bytes()
    {
        const quint32 count = number<quint32>();
        return count == nullCount ? QByteArrayView() : take(count);
    }
    void skipActionFields() { take(sizeof(actionFlag) + sizeof(actionFields)); }

private:
    QByteArrayView take(qsizetype size)
    {
        const QByteArrayView bytes = size <= rest.size() ? rest.first(size) : QByteArrayView();
        rest = rest.sliced(std::min(size, rest.size()));
        return bytes;
    }
    QByteArrayView rest;
};

// Copies into the memory that the field has already, if it is large enough.
void assign(QByteArray &field, QByteArrayView bytes)
{
    if (field.size() != bytes.size())
        field.resize(bytes.size());
    Q_ASSERT(field.size() == bytes.size());
    if (!bytes.isEmpty())
        std::copy(bytes.begin(), bytes.end(), field.data());
}

} // namespace

void BusFrame::read(QByteArrayView body)
{
    Fields fields(body);
    kind = fields.number<uchar>();
    assign(name, isControlKind(kind) ? fields.bytes() : QByteArrayView());
    assign(message, kind == Action ? fields.bytes() : QByteArrayView());
    assign(data, kind != Name ? fields.bytes() : QByteArrayView());
    if (kind == Action)
        fields.skipActionFields();
    id = isControlKind(kind) && kind != Name ? fields.number<qint32>() : 0;
}

void BusFrame::takeOver(QByteArray body)
{
    Fields fields(body);
    const uchar first = fields.number<uchar>();
    const qsizetype size = fields.bytes().size();
    if (size == 0 || isControlKind(first))
        return read(body);
    read(QByteArrayView(body).first(sizeof(kind)));
    Q_ASSERT(dataOffset + size <= body.size());
    body.truncate(dataOffset + size);
    data = std::move(body.remove(0, dataOffset));
}

QByteArray BusFrame::makeName(const QByteArray &name)
{
    return frame(Name, name);
}

QByteArray BusFrame::makeAction(
    const QByteArray &name, const QByteArray &message, const QByteArray &data, qint32 id)
{
    const auto &fixed = actionFields;
    return frame(Action, name, message, data, actionFlag, fixed[0], fixed[1], fixed[2], fixed[3],
        fixed[4], id);
}

QByteArray BusFrame::makeCommand(const QByteArray &name, const QByteArray &data, qint32 id)
{
    return frame(Command, name, data, id);
}

QByteArray BusFrame::makeBusMessage(const QByteArray &iface, const QByteArray &data, qint32 id)
{
    return frame(BusMessage, iface, data, id);
}

QByteArray BusFrame::makeData(uchar version, const QByteArray &data)
{
    Q_ASSERT(!isControlKind(version));
    return frame(version, data);
}
