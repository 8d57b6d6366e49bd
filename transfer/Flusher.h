#pragma once

#include "Descriptor.h"
#include "SpoolDirectory.h"

#include <QObject>
#include <QTimer>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// Flushes accepted records to the disk on a separate thread: files of a spool and records of a
// journal, as long as they are still needed after a power cut.
//
// Requests are gathered: at most two flushes begin in a second. Nothing is flushed for files that
// are no longer needed by then.
//
// Thread:  the one that constructed it. Only blocking system calls run on the other thread.
// Errors:  a failed flush is repeated, and reported once.
class Flusher : public QObject
{
    Q_OBJECT
public:
    // `journal` returns the descriptor of the file that stores the time of a flush, or -1.
    // `areFilesNeeded` is asked when a flush begins whether there is any file left to flush.
    Flusher(const SpoolDirectory &spool, std::function<int()> journal,
        std::function<bool()> areFilesNeeded);
    ~Flusher() override;

    // Requests a flush because files were written into the spool.
    void filesWritten();
    // Requests a flush because records of the journal were not acknowledged soon.
    void recordsWait();
    // Returns whether files were written that are not yet known to be on the disk.
    [[nodiscard]] bool isPending() const { return areFilesDirty || isRunning; }

Q_SIGNALS:
    // A flush has failed; recovered() follows the first one that succeeds after that.
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
    [[nodiscard]] static bool perform(const Job &job);
    void finish(int reason);

    const SpoolDirectory spool;
    const std::function<int()> journal;
    const std::function<bool()> areFilesNeeded;
    QTimer beginTimer;
    Clock::time_point lastBegin;
    bool areFilesDirty = false, areRecordsDirty = false;
    bool isRunning = false;
    bool hasFailed = false;

    std::thread worker;
    std::mutex mutex; // guards the members below
    std::condition_variable wake;
    std::optional<Job> job;
    bool stopRequested = false;
};
