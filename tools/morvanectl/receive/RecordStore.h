#pragma once

#include "NumberedFiles.h"
#include "ReceiveOptions.h"
#include "RecordBatch.h"

#include <QList>

// Keeps the records of a receiver as its options ask: in files, in files that are safe on the disk
// before they are acknowledged, or nowhere.
class RecordStore
{
public:
    struct Record
    {
        qint64 number; // once it is kept
        qint64 bytes;
        QString beginning; // its kind, as far as that can be told
    };

    explicit RecordStore(const ReceiveOptions &receiveOptions);
    [[nodiscard]] bool open();
    [[nodiscard]] qint64 newLink() { return batch.newLink(); }

    [[nodiscard]] bool add(const QByteArray &body, qint64 link);
    // Returns how many records were added and not yet committed.
    [[nodiscard]] qsizetype pending() const { return pendingRecords.size(); }
    [[nodiscard]] bool isFull() const { return batch.isFull(); }
    // Returns the records that have been kept since the last call.
    [[nodiscard]] std::optional<QList<Record>> commit();

private:
    const ReceiveOptions &options;
    NumberedFiles files;
    RecordBatch batch;
    QList<Record> pendingRecords;
    qint64 shownRecords = 0;
};
