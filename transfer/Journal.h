#pragma once

#include "Descriptor.h"

#include <QByteArray>
#include <QByteArrayView>

#include <functional>

// A ring of records in one preallocated file: records on their way to the peer that have no file of
// their own in the spool.
//
// Records are staged in memory and written together by commit(), one system call for all that one
// read of the bus has brought. Each carries a checksum over all of it, so a kill or a power cut
// leaves a record whole or absent. The file is written, not mapped: a full disk or a failing one
// gives a result here, and no signal.
//
//   offset   what
//   0        identity: magic, version, host, boot, bytes of the ring; written once
//   512      state: checksum, position of the oldest record that is not free
//   1024     sync: checksum, time up to which the file system is known to be on the disk
//   4096     the ring: records at multiples of 64 bytes; none is split at the ring's end
//
// Positions count bytes since the journal was made and never go back; a record at position p lies
// at p modulo the ring's size. The layout is this host's own and never leaves it.
//
// Owner:   the process that holds the kernel's lock on the folder around it.
// Thread:  any one thread. Only sync() may run on another one at the same time.
class Journal
{
public:
    struct Entry
    {
        QByteArrayView name; // file system encoding
        QByteArrayView content; // of the spool file that it stands for
        qint64 time; // nanoseconds since the epoch: when the record was accepted
        quint64 end; // position behind it
    };
    // Where the owner ran.
    struct Identity
    {
        QByteArray host; // empty if the host has no id
        QByteArray boot;
    };

    static constexpr char fileName[] = ".journal";
    static constexpr qint64 defaultBytes = 8'388'608; // twice what a link holds unacknowledged
    static constexpr qsizetype largestContent = 1'048'576; // bytes; larger records become files

    Journal() = default;
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;

    // Makes the file in a folder. On a disk with little room it is smaller, down to no ring at all.
    [[nodiscard]] bool create(int folder);
    // Opens what another process has left.
    [[nodiscard]] bool open(int folder);
    void close();
    [[nodiscard]] bool isOpen() const { return file.isOpen(); }
    [[nodiscard]] int descriptor() const { return file.get(); }

    [[nodiscard]] Identity identity() const;
    // The identity of this process.
    [[nodiscard]] static const Identity &here();

    [[nodiscard]] bool hasRoomFor(qsizetype nameBytes, qsizetype contentBytes) const;
    // Stages a record whose content is in two pieces; there must be room. Returns its end.
    quint64 add(QByteArrayView name, qint64 time, QByteArrayView kind, QByteArrayView payload);
    // Writes what is staged. After a failure the journal takes no more records, and what was staged
    // can still be visited.
    [[nodiscard]] bool commit();
    // Frees all records up to a position that add() has returned.
    void free(quint64 position);
    [[nodiscard]] bool isEmpty() const { return head == tail; }
    [[nodiscard]] quint64 end() const { return tail; }

    // Calls visit for every record that is not free, in order, until it returns false; false then.
    bool forEach(const std::function<bool(const Entry &)> &visit) const;
    // The same for those that are staged.
    void forEachStaged(const std::function<void(const Entry &)> &visit) const;

    // Nanoseconds since the epoch: what was in the file system by then is on the disk.
    [[nodiscard]] qint64 syncedUntil() const;
    // Notes that time, and brings the file to the disk. Both take the file's descriptor, because
    // they run on a thread that may outlive the journal.
    static bool noteSynced(int descriptor, qint64 time);
    static bool sync(int descriptor);

private:
    [[nodiscard]] bool writeHeader(qint64 ringBytes);
    [[nodiscard]] quint64 placeFor(qsizetype bytes) const;
    [[nodiscard]] bool writeStaged();
    bool scan(quint64 from, quint64 size, const std::function<bool(const Entry &)> &visit) const;

    Descriptor file;
    quint64 capacity = 0; // bytes of the ring
    quint32 seed = 0; // of the records' checksums
    quint64 head = 0; // position of the oldest record that is not free
    quint64 tail = 0; // position behind the last one
    quint64 written = 0; // position behind the last one in the file
    QByteArray staged; // bytes from there to the tail
    bool failed = false;
};
