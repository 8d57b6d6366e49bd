#pragma once

#include "Descriptor.h"
#include "LinkRecord.h"

#include <QByteArrayList>
#include <QObject>
#include <QSocketNotifier>

// One module's connection to a receiver. It never reads past the record that next() returns: the
// rest stays in the kernel, so its buffer limits what is lost with the connection.
//
// Errors:  a connection that fails counts as ended.
class RecordLink : public QObject
{
    Q_OBJECT
public:
    // Takes over a connected TCP socket.
    RecordLink(int descriptor, quint32 longestRecord, QObject *parent);

    // "127.0.0.1 port 4711"
    [[nodiscard]] QString peer() const;

    // Returns the next record's body, or nullopt if it is not complete yet, the connection has
    // ended, or the record is too long and was refused.
    [[nodiscard]] std::optional<QByteArray> next();
    [[nodiscard]] bool hasEnded() const { return isOver; }
    [[nodiscard]] quint32 refusedLength() const { return reader.refusedLength(); }
    [[nodiscard]] bool isAtRecordBoundary() const { return reader.isAtRecordBoundary(); }

    // Tells the module how many records of this connection are safely stored. Returns false if the
    // kernel takes no more bytes, because the module does not read its acknowledgements.
    [[nodiscard]] bool acknowledge(quint64 records) const;

    // Leaves what has arrived unread.
    void stopReading() { notifier.setEnabled(false); }
    // Ends the connection at once, with a reset if bytes are unread.
    void close();

    // Returns the complete records, without keep-alives, that the kernel has acknowledged and
    // next() has not returned. The module has forgotten them.
    [[nodiscard]] QByteArrayList unread() const;

    [[nodiscard]] qint64 bytesRead() const { return readBytes; }

Q_SIGNALS:
    void readable();

private:
    Descriptor descriptor;
    QSocketNotifier notifier;
    LinkRecord::Reader reader;
    qint64 readBytes = 0;
    bool isOver = false;
};
