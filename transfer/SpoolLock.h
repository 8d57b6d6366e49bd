#pragma once

#include "MessageSink.h"

#include <QByteArray>
#include <QCoreApplication>

#include <chrono>
#include <optional>

class SpoolDirectory;

// The lock file of a spool directory, as seen by one waiting writer or reader.
//
// The lock file exists while a writer is at work. A lock file is stale, and removed, if it is older
// than 30 seconds or, because clocks may differ, if the waiter has seen it unchanged for 30
// seconds. A writer that uses this class also holds the kernel's lock on its file while it lives,
// so the file of a killed writer is removed almost at once.
//
// Owner:   whoever waits, for one wait. The destructor releases an acquired lock.
// Errors:  long waits and removed locks are each reported once.
class SpoolLock
{
    Q_DECLARE_TR_FUNCTIONS(SpoolLock)
public:
    using Clock = std::chrono::steady_clock;
    enum class State {
        Free,
        Held,
        Stuck // stale, but cannot be removed
    };

    // Returns the time of the lock file, in nanoseconds since the epoch, or nullopt if there is
    // none.
    [[nodiscard]] static std::optional<qint64> timeIn(const SpoolDirectory &spool);

    SpoolLock(const SpoolDirectory &spool, MessageSink report);
    ~SpoolLock();
    SpoolLock(const SpoolLock &) = delete;
    SpoolLock &operator=(const SpoolLock &) = delete;

    // Checks the lock once, without waiting, and removes it if it is stale.
    [[nodiscard]] State removeIfStale(Clock::time_point now = Clock::now());

    // Takes the lock if it is free. Returns false, with the reason in errno, otherwise.
    [[nodiscard]] bool tryAcquire();
    // Waits until the lock is free and takes it. Returns false, with the reason in errno, if it
    // cannot be taken; EBUSY if others have passed it among themselves for a minute.
    [[nodiscard]] bool acquire();
    void release();

private:
    struct Snapshot
    {
        quint64 inode;
        qint64 modified; // nanoseconds since the epoch
        bool isLockedWhileOwned; // by the kernel: the writer uses this class
        bool operator==(const Snapshot &) const = default;
    };
    [[nodiscard]] static std::optional<Snapshot> snapshotOf(const QByteArray &path);
    [[nodiscard]] bool isAbandoned(Clock::time_point now);
    [[nodiscard]] State removeUnlessChanged(const Snapshot &stale, const QString &reason);

    const QByteArray directory; // file system encoding, as path
    const QByteArray path;
    const MessageSink report;
    Clock::time_point waitingSince;
    Clock::time_point unchangedSince;
    std::optional<Clock::time_point> unlockedSince; // by the kernel, although its writer uses that
    std::optional<Snapshot> lastSeen;
    bool hasReportedWait = false;
    int descriptor = -1; // of the lock file while we hold it
};
