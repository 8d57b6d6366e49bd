#pragma once

#include "Counters.h"
#include "Record.h"
#include "SpoolKeeper.h"

#include <QByteArray>
#include <QHash>
#include <QSet>

#include <chrono>
#include <deque>
#include <optional>

// The records that the TCP link has taken and the peer has not acknowledged yet.
//
// A socket takes bytes long before they arrive, and loses them when the link ends. So every record
// is remembered by the place of its last byte in the link's stream, and stays in the journal, or as
// a file beside it, until what is acknowledged has passed that place: by the kernel's count of
// bytes or, if the peer's program is to acknowledge, by its count of records.
//
// Owner:   SpoolSender.
// Thread:  main thread.
// Errors:  never throws.
class OnItsWay
{
public:
    using Clock = std::chrono::steady_clock;

    // The peer's program has that long to acknowledge a record that has reached its host; without
    // a time its kernel acknowledges.
    OnItsWay(
        SpoolKeeper &keeper, Counters &counters, std::optional<std::chrono::milliseconds> peerTime);

    // The link is up: its acknowledged bytes count from here. Makes the kernel end it when sent
    // bytes stay unacknowledged for the given time. False if the link cannot be watched.
    [[nodiscard]] bool linkUp(qintptr socket, std::chrono::milliseconds deadAfter);
    [[nodiscard]] bool isLinkUp() const { return link.isOpen(); }
    // The link has ended: after a last look all that is left goes back into the spool.
    void linkDown();

    // The socket takes a record that need not be kept: a keep-alive, or one whose file stays.
    void addUnkept(qint64 bytes);
    // The socket takes a record: of the journal, up to a position;
    void addJournaled(const QByteArray &name, quint64 journalEnd, qint64 bytes);
    // of a file that is kept aside;
    void addKept(const QString &name, qint64 bytes);
    // of a file that is still in the spool, and is removed if it is still the same one then.
    void addListed(const QString &name, const SpoolFile::Mark &mark, qint64 bytes);

    // Frees what has been acknowledged since the last look, up to some thousand records; true if
    // there was something.
    bool look();
    // Whether the last look has left acknowledged records for the next one.
    [[nodiscard]] bool isBehind() const;
    // Whether another record may go on its way. Empty ones could be many: they are bounded by
    // number. A program may acknowledge late, so its records are bounded as the journal is.
    [[nodiscard]] bool hasRoomFor(qint64 bytes) const;
    [[nodiscard]] bool isEmpty() const { return records.empty(); }
    // Bytes of kind and payload.
    [[nodiscard]] Counters::Amount waiting() const
    {
        return {qint64(records.size()), waitingBytes};
    }
    // How long the oldest record has waited.
    [[nodiscard]] std::chrono::milliseconds age() const;
    // Whether a record of that name is among them. Finds those of the journal only if they were
    // taken before the last call of rememberNames().
    [[nodiscard]] bool holds(const QString &name) const;
    [[nodiscard]] bool holdsFile(const QString &name) const { return keeper.sent().holds(name); }
    void rememberNames();

    // --- the numbers of the peer's program ---

    enum class Fault {
        None,
        Backwards, // a number is smaller than the one before
        Beyond, // a number counts records that have not arrived
        Overdue
    };
    // Reads what the peer has sent; the next look() frees what it acknowledges. After a fault
    // nothing counts any more on this link.
    [[nodiscard]] Fault acknowledge(QByteArrayView bytes);
    // The fault of this link so far. To be asked for while records wait.
    [[nodiscard]] Fault checkTime();
    // The last number that counts, and the last one that was read.
    [[nodiscard]] quint64 storedRecords() const { return stored; }
    [[nodiscard]] quint64 lastNumber() const { return lastRead; }

private:
    struct Record
    {
        qint64 end; // in the stream of this link
        quint64 number; // on this link, from 1
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
    [[nodiscard]] qint64 arrivedBytes() const;
    [[nodiscard]] quint64 arrivedRecords() const;
    [[nodiscard]] Fault readNumbers();
    void readRest();

    SpoolKeeper &keeper;
    Counters &done;
    std::deque<Record> records; // in the order of the stream
    QHash<QByteArray, qint64> remembered; // the end of the last record of each name
    QSet<QByteArray> givenBack; // and not sent again yet
    qint64 waitingBytes = 0; // of records
    qint64 taken = 0; // bytes of this link
    quint64 takenRecords = 0; // of this link, the unkept ones too
    qint64 flushedTo = 0; // in the stream: older records of the journal are on the disk
    qint64 countAtStart = 0; // of the kernel, when the link came up

    const std::optional<std::chrono::milliseconds> peerTime; // see the constructor
    LinkRecord::AcknowledgementReader reader;
    quint64 stored = 0; // records of this link, as the peer says
    qint64 storedTo = 0; // in the stream: up to there the records are stored
    Clock::time_point lastStored; // when the number grew, or what it waits for had not arrived yet
    quint64 arrived = 0; // so many at least, when the kernel was asked last
    quint64 lastRead = 0;
    Fault fault = Fault::None;

    Descriptor link; // of our own: Qt has closed its own when it tells of an end
};
