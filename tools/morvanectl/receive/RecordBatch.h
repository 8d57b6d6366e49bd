#pragma once

#include "NumberedFiles.h"
#include "RecordIndex.h"

#include <QList>

// Records in numbered files that are safe on the disk before anybody acknowledges them.
//
// add() writes a record under a hidden name. commit() brings all of them to the disk, gives them
// their names, adds their lines to the index, and brings both to the disk. So a file that has its
// name is whole, and what commit() has confirmed outlives a kill and a power cut. One in between
// leaves hidden files, which the next open() removes, and files without a line, which it adds.
//
// Owner:   the receiver.
// Thread:  any one thread, which waits for the disk.
// Errors:  results say what failed, with the reason in errno. What a commit() that failed was for
//          must not be acknowledged.
class RecordBatch
{
public:
    static constexpr int mostRecords = 1'000; // of a batch

    // False, with EWOULDBLOCK in errno, while another process has the folder open.
    [[nodiscard]] bool open(const QString &path, const QString &nameTemplate);
    // The number under which the index knows a new link.
    [[nodiscard]] qint64 newLink() { return ++lastLink; }

    [[nodiscard]] bool add(const QByteArray &content, qint64 link);
    [[nodiscard]] bool isFull() const;
    // The numbers of the records, in the order in which they were added; nothing if it has failed.
    [[nodiscard]] std::optional<QList<qint64>> commit();

private:
    [[nodiscard]] bool lock();
    void removeLeftovers() const;
    [[nodiscard]] bool indexFilesWithoutLine();
    [[nodiscard]] bool flushFiles() const;

    NumberedFiles files;
    RecordIndex index;
    Descriptor lockedFolder;
    qint64 lastLink = 0;
    QList<RecordIndex::Line> records; // without number, under hidden names
    qint64 recordBytes = 0;
};
