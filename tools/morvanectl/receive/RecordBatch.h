#pragma once

#include "NumberedFiles.h"
#include "RecordIndex.h"

#include <QList>

// Stores records in numbered files, which a commit() brings safely to the disk.
//
// add() writes a record to a file with a hidden name. commit() flushes all these files, gives them
// their names, appends a line for each to the index, and flushes names and index. So a file under
// its name is complete, and committed records survive a kill and a power cut. A kill during
// commit() leaves hidden files, which the next open() removes, and named files that the index does
// not list, which open() adds to it.
//
// Thread:  blocks until the disk has everything.
// Errors:  if commit() fails, none of its records may be acknowledged.
class RecordBatch
{
public:
    static constexpr int mostRecords = 1'000;

    // Fails with EWOULDBLOCK while another process has the folder open.
    [[nodiscard]] bool open(const QString &path, const QString &nameTemplate);
    // Returns a number for a new connection, which the index has not used before.
    [[nodiscard]] qint64 newLink() { return ++lastLink; }

    [[nodiscard]] bool add(const QByteArray &content, qint64 link);
    [[nodiscard]] bool isFull() const;
    // Returns the numbers of the records, in the order in which they were added.
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
    QList<RecordIndex::Line> pendingRecords; // without numbers, under hidden names
    qint64 pendingBytes = 0;
};
