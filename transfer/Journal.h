#pragma once

#include "Descriptor.h"

#include <QByteArray>
#include <QByteArrayView>

#include <functional>

// A ring of records in one preallocated file. It holds records that are on their way to the peer
// and have no file of their own in the spool.
//
// Records are staged in memory. commit() writes all records from one read of the bus with one
// system call. Each record has a checksum, so after a kill or a power cut it is either whole or
// absent. The file is written rather than mapped, so that a full or failing disk causes an error
// result and not a signal.
//
//   offset   what
//   0        identity: magic, version, host, boot, bytes of the ring; written once
//   512      state: checksum, position of the oldest record in use
//   1024     sync: checksum, time up to which the file system is known to be on the disk
//   4096     the ring: records at multiples of 64 bytes; none is split at the ring's end
//
// Positions count bytes since the journal was created and never decrease. A record at position p
// lies at offset p modulo the ring's size. Byte order and layout are those of this host.
//
// Owner:   the process that holds the kernel's lock on the enclosing folder.
// Thread:  any one thread. noteSynced() and sync() may run on another one at the same time.
// Errors:  functions that fail return false with the reason in errno.
class Journal
{
public:
    struct Entry
    {
        QByteArrayView name; // file system encoding
        QByteArrayView content; // as the record's spool file would have it
        qint64 acceptedAt; // nanoseconds since the epoch
        quint64 end; // of the record, as a position
    };
    // Identifies the host and the boot that the owner ran on.
    struct Identity
    {
        QByteArray host; // empty if the host has no id
        QByteArray boot;
    };

    static constexpr qint64 defaultBytes = 8'388'608; // more than a link holds unacknowledged
    static constexpr qsizetype largestContent = 1'048'576; // bytes; larger records become files

    Journal() = default;
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;

    // Creates the file in a folder. If the disk is nearly full the ring is smaller, or has no room.
    [[nodiscard]] bool create(int folder);
    // Opens the journal that another process has left.
    [[nodiscard]] bool open(int folder);
    void close();
    [[nodiscard]] bool isOpen() const { return file.isOpen(); }
    [[nodiscard]] int descriptor() const { return file.get(); }

    [[nodiscard]] Identity identity() const;
    // Returns the identity of this process.
    [[nodiscard]] static const Identity &here();

    [[nodiscard]] bool hasRoomFor(qsizetype nameBytes, qsizetype contentBytes) const;
    // Stages a record with the content kind + payload and returns the position after it. Call
    // hasRoomFor() first.
    quint64 add(QByteArrayView name, qint64 time, QByteArrayView kind, QByteArrayView payload);
    // Writes the staged records. After a failure the journal takes no more records until it is
    // created anew.
    [[nodiscard]] bool commit();
    // Frees all records up to a position that add() returned.
    void free(quint64 position);
    [[nodiscard]] bool isEmpty() const { return head == tail; }
    [[nodiscard]] quint64 end() const { return tail; }

    // Calls visit for every written record in use, in order. Stops and returns false when visit
    // returns false.
    bool forEach(const std::function<bool(const Entry &)> &visit) const;

    // Returns the time, in nanoseconds since the epoch, up to which changes of the file system are
    // known to be on the disk.
    [[nodiscard]] qint64 syncedUntil() const;
    // Stores that time; sync() flushes the journal to the disk. Both take the file's descriptor,
    // because they run on a thread that may outlive the journal.
    [[nodiscard]] static bool noteSynced(int descriptor, qint64 time);
    [[nodiscard]] static bool sync(int descriptor);

private:
    [[nodiscard]] bool writeHeader(qint64 ringBytes);
    [[nodiscard]] quint64 placeFor(qsizetype bytes) const;
    [[nodiscard]] bool writeStaged();
    bool scan(quint64 from, quint64 size, const std::function<bool(const Entry &)> &visit) const;

    Descriptor file;
    quint64 capacity = 0; // bytes
    quint32 checksumSeed = 0;
    // Positions: records in use are in the file from head to writtenEnd, and staged from there to
    // tail.
    quint64 head = 0;
    quint64 writtenEnd = 0;
    quint64 tail = 0;
    QByteArray staged;
    bool failed = false;
};
