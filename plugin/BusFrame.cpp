#include "BusFrame.h"

#include <QDataStream>
#include <QIODevice>

namespace {

constexpr int streamVersion = QDataStream::Qt_4_5;
constexpr qint8 actionFlag = 1;
constexpr qint16 actionFields[] = {-1, -1, 0, 0, 0};

template <typename... Fields> QByteArray frame(uchar kind, const Fields &...fields)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(streamVersion);
    stream << qint32(0) << quint8(kind);
    (stream << ... << fields);
    stream.device()->seek(0);
    stream << qint32(bytes.size() - qsizetype(sizeof(qint32)));
    return bytes;
}

void skipActionFields(QDataStream &stream)
{
    qint8 flag = 0;
    stream >> flag;
    for (qint16 field : actionFields)
        stream >> field;
}

} // namespace

BusFrame BusFrame::read(const QByteArray &body)
{
    BusFrame frame;
    QDataStream stream(body);
    stream.setVersion(streamVersion);
    stream >> frame.kind;
    switch (frame.kind) {
    case Name:
        stream >> frame.name;
        break;
    case Action:
        stream >> frame.name >> frame.message >> frame.data;
        skipActionFields(stream);
        stream >> frame.id;
        break;
    case Command:
    case BusMessage:
        stream >> frame.name >> frame.data >> frame.id;
        break;
    default:
        stream >> frame.data;
    }
    return frame;
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
    return frame(version, data);
}
