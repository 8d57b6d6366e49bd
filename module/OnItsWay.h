#pragma once

#include "Counters.h"
#include "LinkRecord.h"
#include "SpoolKeeper.h"

#include <QByteArray>
#include <QHash>
#include <QSet>

#include <chrono>
#include <deque>
#include <optional>

// Remembers the records that were written to the TCP link and are not acknowledged yet.
//
// A socket accepts bytes long before they arrive, and loses them if the link ends. So this class
// remembers where each record ends in the link's byte stream. The record stays in the journal, or
// as a file beside it, until the acknowledgements have passed that place. They come from the
// kernel, which counts bytes, or from the peer's program, which counts records.
class OnItsWay
{
public:
    using Clock = std::chrono::steady_clock;

    // If `acknowledgementTime` is set, the peer's program acknowledges, and has this long for each
    // record that has reached its host. Otherwise the peer's kernel acknowledges.
    OnItsWay(SpoolKeeper &keeper, Counters &counters,
        std::optional<std::chrono::milliseconds> acknowledgementTime);

    // Starts to watch a new link. Makes the kernel end the link when sent bytes stay unacknowledged
    // for the time `deadAfter`. Returns false if the link cannot be watched.
    [[nodiscard]] bool linkUp(qintptr socket, std::chrono::milliseconds deadAfter);
    [[nodiscard]] bool isLinkUp() const { return ownLink.isOpen(); }
    // Frees what was acknowledged before the link ended and returns the rest to the spool.
    void linkDown();

    // Each add function is called when a record has been written to the socket. `bytes` is the
    // record's size on the link.
    //
    // Adds a record that need not be kept: a keep-alive, or one whose file stays in the spool.
    void addUnkept(qint64 bytes);
    // Adds a record of the journal that ends at the journal's position `journalEnd`.
    void addJournaled(const QByteArray &name, quint64 journalEnd, qint64 bytes);
    // Adds a record whose file was moved to the folder of sent files.
    void addKept(const QString &name, qint64 bytes);
    // Adds a record whose file is still in the spool. Its acknowledgement removes the file, unless
    // the file has changed since `mark` was taken.
    void addListed(const QString &name, const SpoolFile::Mark &mark, qint64 bytes);

    // Frees acknowledged records for a few milliseconds at most. Returns whether it freed any.
    bool freeAcknowledged();
    // Whether freeAcknowledged() has left records that the peer's program has acknowledged.
    [[nodiscard]] bool hasMoreToFree() const;
    // Whether another record of `bytes` may be sent. The number of records is limited because many
    // may be empty. Their bytes are limited too if the peer's program acknowledges, because it may
    // do so late.
    [[nodiscard]] bool hasRoomFor(qint64 bytes) const;
    [[nodiscard]] bool isEmpty() const { return records.empty(); }
    // Counts the bytes of kind and payload.
    [[nodiscard]] Counters::Amount waiting() const
    {
        return {qint64(records.size()), waitingBytes};
    }
    // How long the oldest record has waited for its acknowledgement.
    [[nodiscard]] std::chrono::milliseconds oldestAge() const;
    // Whether a record called `name` is unacknowledged. A record without a file of its own in the
    // folder of sent files is found only if it was added before the last call of rememberNames().
    [[nodiscard]] bool holds(const QString &name) const;
    [[nodiscard]] bool holdsFile(const QString &name) const { return keeper.sent().holds(name); }
    void rememberNames();

    // --- the numbers of the peer's program ---

    enum class Fault {
        None,
        NumberFell,
        NumberTooHigh, // it counts records that have not arrived at the peer's host
        Overdue
    };
    // Reads the numbers in `bytes`, which the peer has sent. The next freeAcknowledged() frees the
    // records that they count. After a fault, all further numbers of this link are ignored.
    [[nodiscard]] Fault acknowledge(QByteArrayView bytes);
    // Returns the fault of this link; Overdue if the peer's program has run out of time.
    [[nodiscard]] Fault checkOverdue();
    // Returns the last number without a fault: the records that the peer's program has stored.
    [[nodiscard]] quint64 storedRecords() const { return recordsStored; }
    // Returns the last number that was read, whether it had a fault or not.
    [[nodiscard]] quint64 lastNumber() const { return lastNumberRead; }

private:
    struct Record
    {
        qint64 streamEnd;
        quint64 number; // counted on this link, from 1
        Clock::time_point takenAt;
        quint64 journalEnd = 0; // 0 for a record of a file
        QByteArray name; // file system encoding
        std::optional<SpoolFile::Mark> listedAs;
        qint64 bodySize;
    };
    void add(quint64 journalEnd, const QByteArray &name,
        const std::optional<SpoolFile::Mark> &listedAs, qint64 bytes);
    void removeFileOf(const Record &record);
    void askForFlush(Clock::time_point now);
    [[nodiscard]] qint64 arrivedBytes() const;
    [[nodiscard]] quint64 arrivedRecords() const;
    [[nodiscard]] Fault readNumbers();
    void readLastNumbers();

    SpoolKeeper &keeper;
    Counters &counters;
    std::deque<Record> records; // in the order of the stream
    // For each name, where its last record ends in the stream.
    QHash<QByteArray, qint64> rememberedEnds;
    // Names of records that were given back and have not been sent again.
    QSet<QByteArray> namesGivenBack;
    qint64 waitingBytes = 0;

    // Counted anew on each link, including unkept records. They are places in the link's stream.
    qint64 bytesTaken = 0;
    quint64 recordsTaken = 0;
    // The flusher was asked to flush the records of the journal up to this place.
    qint64 flushRequestedTo = 0;
    qint64 kernelCountAtStart = 0;

    const std::optional<std::chrono::milliseconds> acknowledgementTime;
    LinkRecord::AcknowledgementReader reader;
    quint64 recordsStored = 0;
    qint64 storedStreamEnd = 0;
    // When the peer's number last grew, or when the oldest record had last not arrived yet.
    Clock::time_point lastProgress;
    // The kernel's last answer. More records may have arrived since.
    quint64 recordsKnownArrived = 0;
    quint64 lastNumberRead = 0;
    Fault fault = Fault::None;

    // A duplicate: when Qt reports the end of the link, it has already closed its own descriptor.
    Descriptor ownLink;
};
