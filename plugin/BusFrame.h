#pragma once

#include <QByteArray>
#include <QByteArrayView>

// One frame of the local bus. Every connection carries a plain sequence of them in both directions,
// all numbers big-endian:
//
//   offset  size  field
//   0       4     length   int32, number of bytes that follow this field
//   4       1     kind     200 name, 202 action, 203 command, 204 bus message;
//                          any other value is a data frame, and the byte is the data's version
//   5             fields   in this order, by kind:
//
//   kind         fields
//   name         sender's bus name
//   action       action name, message, data, int8 flag = 1, five int16 = -1, -1, 0, 0, 0, int32 id
//   command      command name, data, int32 id
//   bus message  interface name, data, int32 id
//   data         data
//
// A field without a type is a byte string: uint32 count N, then N bytes. The count 0xFFFFFFFF
// stands for a null string; it reads as an empty one.
struct BusFrame
{
    enum Kind : uchar { Name = 200, Action = 202, Command = 203, BusMessage = 204 };

    uchar kind = 0; // a Kind, or the version of a data frame
    QByteArray name; // of the sender, the action, the command or the interface
    QByteArray message; // of an action
    QByteArray data;
    qint32 id = 0; // the connection id; not in name and data frames

    // Reads a frame's body: everything behind the length. A field that runs past the end reads as
    // empty or 0, and so do all later fields; surplus bytes are ignored. Reuses the fields' memory.
    void read(QByteArrayView body);
    // The same, but the data of a data frame takes over the memory of `body`.
    void takeOver(QByteArray body);

    // Return a whole frame, length included. A null byte array is written as a null string.
    [[nodiscard]] static QByteArray makeName(const QByteArray &name);
    [[nodiscard]] static QByteArray makeAction(
        const QByteArray &name, const QByteArray &message, const QByteArray &data, qint32 id);
    [[nodiscard]] static QByteArray makeCommand(
        const QByteArray &name, const QByteArray &data, qint32 id);
    [[nodiscard]] static QByteArray makeBusMessage(
        const QByteArray &iface, const QByteArray &data, qint32 id);
    // The version must not be one of the four kinds.
    [[nodiscard]] static QByteArray makeData(uchar version, const QByteArray &data);
};
