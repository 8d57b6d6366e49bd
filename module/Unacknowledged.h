#pragma once

#include "SentFolder.h"
#include "SpoolDirectory.h"

#include <QHash>
#include <QString>

#include <chrono>
#include <deque>
#include <optional>

// What the TCP link has taken and the peer's kernel has not acknowledged yet.
//
// A socket takes bytes long before they arrive, and loses them when the link ends. So every record
// is remembered by the place of its last byte in the link's stream, and its file kept aside, until
// the kernel's count of acknowledged bytes has passed that place.
//
// On a full disk a file cannot be put aside. It stays in the spool then, but is known here, so that
// it is not sent again and again, and goes when it is acknowledged, which makes room.
//
// Owner:   SpoolSender.
// Thread:  main thread.
// Errors:  never throws.
class Unacknowledged
{
public:
    ~Unacknowledged();

    // To be set while nothing is kept.
    void setSpool(const QString &directory);
    // Gives back what ended processes have left unacknowledged.
    void recover() const { files.recover(); }

    // The link is up: its acknowledged bytes count from here. Makes the kernel end it when sent
    // bytes stay unacknowledged for the given time. False if the link cannot be watched.
    [[nodiscard]] bool linkUp(qintptr socket, std::chrono::milliseconds deadAfter);
    // The socket has taken bytes that belong to no file.
    void addBytes(qint64 count) { taken += count; }
    // The socket has taken a record of so many bytes. Says what has become of the file.
    SentFolder::Take addRecord(const QString &name, const SpoolFile::Mark &mark, qint64 bytes);
    // Whether a file that is still in the spool is on its way to the peer all the same.
    [[nodiscard]] bool isOnItsWay(const QString &name) const;
    // Forgets what has been acknowledged since the last look.
    void look();
    // To be called now and then while nothing is unacknowledged.
    void removeFolder() { files.close(); }
    // The link has ended: after a last look the files that remain go back into the spool.
    void linkDown();

    [[nodiscard]] bool isEmpty() const { return records.empty(); }

private:
    struct Record
    {
        QString name;
        qint64 end; // in the stream of this link
        std::optional<SpoolDirectory::Mark> stuckAs; // see stuck
    };
    void forget(const Record &record);
    [[nodiscard]] qint64 acknowledgedBytes() const;
    void closeLink();

    SpoolDirectory spool{QString()};
    SentFolder files;
    std::deque<Record> records; // in the order of the stream
    QHash<QString, int> keptAs; // records of each name; the last one's file is the one on disk
    QHash<QString, SpoolDirectory::Mark> stuck; // sent, but still in the spool
    qint64 taken = 0; // bytes, since the attempt to connect began
    qint64 countAtStart = 0; // of the kernel, when the link came up
    int link = -1; // a descriptor of our own: Qt has closed its own when it tells of an end
};
