#pragma once

#include "Record.h"
#include "WholeFile.h"

#include <QByteArrayList>
#include <QObject>
#include <QSocketNotifier>

// One module's connection to a receiver. It reads record by record and not a byte further: what the
// receiver does not want stays in the kernel, whose buffer bounds what is lost with the connection.
//
// Owner:   the receiver.
// Errors:  a connection that fails counts as ended.
class RecordLink : public QObject
{
    Q_OBJECT
public:
    // Takes over a connected TCP socket. Longer records are refused.
    RecordLink(int descriptor, quint32 longestRecord, QObject *parent);

    // "127.0.0.1 port 4711"
    [[nodiscard]] QString peer() const;

    // The next record's body; nothing when more bytes must come first, the connection has ended or
    // a record was refused.
    [[nodiscard]] std::optional<QByteArray> next();
    [[nodiscard]] bool hasEnded() const { return ended; }
    [[nodiscard]] quint32 refusedLength() const { return reader.refusedLength(); }
    [[nodiscard]] bool isAtRecordBoundary() const { return reader.isAtRecordBoundary(); }

    // Tells the module how many records of this connection are stored for good. Returns false if it
    // has read no acknowledgements for so long that the kernel takes no more.
    [[nodiscard]] bool acknowledge(quint64 records) const;

    // Reads nothing more; what has come stays unread.
    void stopReading() { notifier.setEnabled(false); }
    // Ends the connection at once. Unread bytes make that a reset.
    void close();

    // Whole records that this side has acknowledged and next() has not returned, keep-alives left
    // out. The module has forgotten them.
    [[nodiscard]] QByteArrayList unread() const;

    // What was read since the connection came.
    [[nodiscard]] qint64 bytesRead() const { return readBytes; }

Q_SIGNALS:
    void readable();

private:
    Descriptor descriptor;
    QSocketNotifier notifier;
    LinkRecord::Reader reader;
    qint64 readBytes = 0;
    bool ended = false;
};
