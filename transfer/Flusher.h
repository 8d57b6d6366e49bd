#pragma once

#include "Descriptor.h"

#include <QObject>
#include <QTimer>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// Brings what was accepted to the disk, on a thread of its own: files of a spool and records of a
// journal that are still needed when a power cut could take them.
//
// Requests are gathered: at most two flushes begin in a second, and none for what is no longer
// needed by then.
//
// Owner:   SpoolKeeper.
// Thread:  the one that constructed it; only the system calls that wait are on the other.
// Errors:  never throws; a flush that failed is repeated, and reported once.
class Flusher : public QObject
{
    Q_OBJECT
public:
    // journal gives the descriptor of the file in which the time of a flush is noted, or -1;
    // areFilesNeeded is asked when a flush is due: whether any file is left that it would be for.
    Flusher(
        const QString &spool, std::function<int()> journal, std::function<bool()> areFilesNeeded);
    ~Flusher() override;

    // Files were written into the spool.
    void filesWritten();
    // Records of the journal have waited long enough for their acknowledgement.
    void recordsWait();
    // Whether something was written that is not yet known to be on the disk.
    [[nodiscard]] bool isPending() const { return areFilesDirty || isRunning; }

Q_SIGNALS:
    // A flush has failed, or the first one after that has not.
    void failed(const QString &reason);
    void recovered();

private:
    struct Job
    {
        bool withFiles = false;
        qint64 time = 0; // nanoseconds since the epoch
        Descriptor spool, journal;
    };
    using Clock = std::chrono::steady_clock;

    void schedule();
    void begin();
    void run();
    [[nodiscard]] static int perform(const Job &job);
    Q_INVOKABLE void finished(int reason);

    const QByteArray path; // file system encoding
    const std::function<int()> journal;
    const std::function<bool()> areFilesNeeded;
    QTimer due;
    Clock::time_point lastBegin;
    bool areFilesDirty = false, areRecordsDirty = false;
    bool isRunning = false;
    bool hasFailed = false;

    std::thread worker; // started with the first flush
    std::mutex mutex; // guards the rest
    std::condition_variable wake;
    std::optional<Job> job;
    bool shallEnd = false;
};
