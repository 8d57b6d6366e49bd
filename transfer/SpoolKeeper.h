#pragma once

#include "Flusher.h"
#include "Leftovers.h"
#include "SentFolder.h"
#include "SpoolLock.h"

#include <QObject>
#include <QStringList>
#include <QTimer>

#include <thread>

// Keeps a spool directory safe, for every transport: gives back what killed processes have left,
// writes files and flushes them to the disk.
//
// Thread:  the one that constructed it. Waiting for the spool's lock blocks it. Work that reads the
//          whole directory runs on a thread of its own.
// Errors:  what fails in giving back or flushing is reported once and tried again every few
//          seconds.
class SpoolKeeper : public QObject
{
    Q_OBJECT
public:
    SpoolKeeper(const SpoolDirectory &spool, MessageSink report);
    ~SpoolKeeper() override;

    // Begins to give back what killed processes have left. Send nothing before ready() is emitted;
    // files may be written at once.
    void start();
    [[nodiscard]] bool isReady() const { return hasRecovered; }
    // Call before the process ends. Removes what the next start does not need.
    void stop();

    [[nodiscard]] SpoolDirectory::WriteResult write(const QString &name, const QByteArray &content);
    // Flushes the files that other processes have written, if the directory has changed.
    void flushFilesOfOthers();

    // Gives back everything in sent(). Returns false if some of it cannot go back yet. Then tries
    // again later, and emits gaveBack() on success.
    bool giveBack();
    [[nodiscard]] SentFolder &sent() { return sentFolder; }
    [[nodiscard]] Flusher &flusher() { return diskFlusher; }
    [[nodiscard]] const SpoolDirectory &directory() const { return spool; }

Q_SIGNALS:
    // What killed processes have left is back in the spool, as far as possible.
    void ready();
    // Records that could not go back into the spool before are there now.
    void gaveBack();

private:
    void retry();
    void beginRecovery();
    void recover(const QByteArray &own, int journal);
    void endRecovery();
    void waitForRecovery();
    [[nodiscard]] bool holdsFiles() const;

    const SpoolDirectory spool;
    const MessageSink report;
    SentFolder sentFolder;
    Flusher diskFlusher;
    QTimer retryTimer;
    bool hasRecovered = false, hasStrandedRecords = false;
    qint64 lastChange = 0; // of the directory, nanoseconds since the epoch

    // While worker is joinable, only its thread uses the members below.
    std::thread worker;
    QStringList pendingReports;
    Leftovers leftovers;
    SpoolLock lock; // kept between attempts, to see for how long it stays unchanged
    qint64 startTime = 0; // nanoseconds since the epoch
    bool hasLeftovers = false, hasUnfinishedFiles = false;
};
