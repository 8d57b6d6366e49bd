#pragma once

#include "Counters.h"
#include "SpoolKeeper.h"

#include <QByteArray>
#include <QHash>
#include <QSet>

#include <chrono>
#include <deque>
#include <optional>

// The records that the TCP link has taken and the peer's kernel has not acknowledged yet.
//
// A socket takes bytes long before they arrive, and loses them when the link ends. So every record
// is remembered by the place of its last byte in the link's stream, and stays in the journal, or as
// a file beside it, until the kernel's count of acknowledged bytes has passed that place.
//
// Owner:   SpoolSender.
// Thread:  main thread.
// Errors:  never throws.
class OnItsWay
{
public:
    using Clock = std::chrono::steady_clock;

    OnItsWay(SpoolKeeper &keeper, Counters &counters);

    // The link is up: its acknowledged bytes count from here. Makes the kernel end it when sent
    // bytes stay unacknowledged for the given time. False if the link cannot be watched.
    [[nodiscard]] bool linkUp(qintptr socket, std::chrono::milliseconds deadAfter);
    [[nodiscard]] bool isLinkUp() const { return link.isOpen(); }
    // The link has ended: after a last look all that is left goes back into the spool.
    void linkDown();

    // The socket takes bytes that belong to no record.
    void addBytes(qint64 bytes) { taken += bytes; }
    // The socket takes a record: of the journal, up to a position;
    void addJournaled(const QByteArray &name, quint64 journalEnd, qint64 bytes);
    // of a file that is kept aside;
    void addKept(const QString &name, qint64 bytes);
    // of a file that is still in the spool, and is removed if it is still the same one then.
    void addListed(const QString &name, const SpoolFile::Mark &mark, qint64 bytes);

    // Frees what has been acknowledged since the last look, up to some thousand records; true if
    // there was something.
    bool look();
    // Empty records could be many: they are bounded by number, not only by the socket's buffers.
    [[nodiscard]] bool isFull() const { return records.size() >= 65'536; }
    [[nodiscard]] bool isEmpty() const { return records.empty(); }
    // How long the oldest record has waited.
    [[nodiscard]] std::chrono::milliseconds age() const;
    // Whether a record of that name is among them. Finds those of the journal only if they were
    // taken before the last call of rememberNames().
    [[nodiscard]] bool holds(const QString &name) const;
    [[nodiscard]] bool holdsFile(const QString &name) const { return keeper.sent().holds(name); }
    void rememberNames();

private:
    struct Record
    {
        qint64 end; // in the stream of this link
        Clock::time_point since;
        quint64 journalEnd = 0;
        QByteArray name; // file system encoding
        std::optional<SpoolFile::Mark> listedAs;
        qint64 size; // of kind and payload
    };
    void add(quint64 journalEnd, const QByteArray &name,
        const std::optional<SpoolFile::Mark> &listedAs, qint64 bytes);
    void forget(const Record &record);
    void askForFlush(Clock::time_point now);
    [[nodiscard]] qint64 acknowledgedBytes() const;

    SpoolKeeper &keeper;
    Counters &done;
    std::deque<Record> records; // in the order of the stream
    QHash<QByteArray, qint64> remembered; // the end of the last record of each name
    QSet<QByteArray> givenBack; // and not sent again yet
    qint64 taken = 0; // bytes of this link
    qint64 flushedTo = 0; // in the stream: older records of the journal are on the disk
    qint64 countAtStart = 0; // of the kernel, when the link came up
    Descriptor link; // of our own: Qt has closed its own when it tells of an end
};
