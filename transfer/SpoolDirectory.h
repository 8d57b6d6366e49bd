#pragma once

#include "MessageSink.h"
#include "SpoolListing.h"
#include "WholeFile.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

#include <chrono>
#include <functional>
#include <optional>

struct dirent;

// Returns whether an entry of an open directory is a regular file, or a link to one.
[[nodiscard]] bool isRegularFile(int directory, const dirent &entry);
// Returns whether a name in file system encoding cannot be held by a QString, because it is not
// UTF-8 or begins with a byte order mark. Converted, it would be another file's name.
[[nodiscard]] bool isForeignName(QByteArrayView name);

// The lock file of a spool directory, as seen by one waiting writer or reader.
//
// The lock file exists while a writer is at work. A lock file is stale, and removed, if it is older
// than 30 seconds, or if the waiter has seen it unchanged for 30 seconds, because clocks may
// differ. A writer that uses this class also holds the kernel's lock on its file while it lives, so
// the file of a killed writer is removed almost at once.
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

    static constexpr char fileName[] = ".lock";

    SpoolLock(const QString &directory, MessageSink report);
    ~SpoolLock();
    SpoolLock(const SpoolLock &) = delete;
    SpoolLock &operator=(const SpoolLock &) = delete;

    // Checks the lock once, without waiting, and removes it if it is stale.
    [[nodiscard]] State look(Clock::time_point now = Clock::now());

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
        bool hasKernelLock; // its writer holds the kernel's lock while it lives
        bool operator==(const Snapshot &) const = default;
    };
    [[nodiscard]] static std::optional<Snapshot> snapshotOf(const QByteArray &path);
    [[nodiscard]] bool isAbandoned(Clock::time_point now);
    [[nodiscard]] State removeStale(const Snapshot &stale, const QString &reason);

    const QByteArray directory; // file system encoding, as path
    const QByteArray path;
    const MessageSink report;
    Clock::time_point waitingSince;
    Clock::time_point unchangedSince;
    std::optional<Clock::time_point> abandonedSince; // the writer does not hold the kernel's lock
    std::optional<Snapshot> lastSeen;
    bool hasReportedWait = false;
    int descriptor = -1; // of the lock file while we hold it
};

// A spool file that is open for reading, even if it is renamed or removed meanwhile.
//
// Errors:  isOpen() returns false if the file cannot be sent.
class SpoolFile
{
public:
    // Tells a file from another one that has replaced it under the same name.
    //
    // Compares size and time. For a file that was changed shortly before the mark was taken this is
    // not enough, because a file system gives two changes within one tick of its clock the same
    // time. Only then is the inode compared too, because some file systems change inode numbers.
    struct Mark
    {
        quint64 inode;
        qint64 modified; // nanoseconds since the epoch
        qint64 size; // bytes
        bool isSettled; // changed long enough before the mark was taken
        bool operator==(const Mark &other) const;
    };
    [[nodiscard]] static Mark markOf(const struct stat &info);

    explicit SpoolFile(const QString &path);
    [[nodiscard]] bool isOpen() const { return file.isOpen(); }
    [[nodiscard]] const Mark &mark() const { return fileMark; }
    // Returns the content, or nullopt if it cannot be read. Leaves headerBytes uninitialised bytes
    // in front of the content for the caller to fill, which saves a copy.
    [[nodiscard]] std::optional<QByteArray> read(qsizetype headerBytes = 0) const;

private:
    Mark fileMark{};
    Descriptor file;
};

// The directory in which every record waits as one file until it is sent.
//
// SpoolLayout.h tells what else is there. Only visible files are listed.
//
// Thread:  any. Objects hold only the path; copies share it.
// Errors:  if a function fails, the reason is in errno.
class SpoolDirectory
{
    Q_DECLARE_TR_FUNCTIONS(SpoolDirectory)
public:
    enum class WriteResult { Written, NoLock, NoFile };
    enum class SetAside { Moved, Gone, Failed };

    using Mark = SpoolFile::Mark;

    explicit SpoolDirectory(QString path);

    // Writes a file under the lock, whole or not at all, and replaces one of the same name. Returns
    // NoFile unless isPlainName(name).
    [[nodiscard]] WriteResult write(
        const QString &name, const QByteArray &content, const MessageSink &report) const;

    // Lists all waiting files in the order of sending: by name, ignoring letter case. For long
    // backlogs use SpoolScan, which lists them in parts.
    [[nodiscard]] SpoolListing list() const;

    // Returns the first file in the order of sending that is not skipped, or an empty name. Makes
    // one pass over the directory, without sorting and without a system call or an allocation for
    // each file. Returns an empty name early if the calling thread's requestInterruption() is
    // called. Sets hasForeign if setForeignNamesAside() has something to do.
    [[nodiscard]] QString first(
        const std::function<bool(const QString &)> &isSkipped, bool &hasForeign) const;

    // Returns nullopt if the file is gone.
    [[nodiscard]] std::optional<Mark> mark(const QString &name) const;

    // The result is not open if the file is gone, unreadable, not a regular file or over 4 GiB.
    [[nodiscard]] SpoolFile open(const QString &name) const { return SpoolFile(pathOf(name)); }

    enum class Removal { Removed, Replaced, Failed };
    // Removes the file that has the mark. A newer file under the same name stays.
    [[nodiscard]] Removal remove(const QString &name, const Mark &mark) const;
    // Removes any file of that name. Returns false if it still exists.
    [[nodiscard]] bool remove(const QString &name) const;

    // Moves a file that can never be sent to the folder of refused files, which is created when
    // needed. Never overwrites a file: if the name is taken there, a number is appended.
    [[nodiscard]] SetAside setAside(const QString &name) const;

    // Sets aside the files with foreign names, see isForeignName(), which list() and first() leave
    // out. Reports each file that is moved. Reports files that cannot be moved only if the previous
    // call had no such failure: the caller keeps hasFailed between calls, initially false.
    void setForeignNamesAside(const MessageSink &report, bool &hasFailed) const;

    // Removes unfinished files of killed writers. Does nothing and returns false while a writer may
    // be at work. lock must not be acquired; the caller keeps it for the next attempt.
    [[nodiscard]] bool removeLeftovers(SpoolLock &lock) const;

    [[nodiscard]] const QString &path() const { return directory; }
    [[nodiscard]] QString pathOf(const QString &name) const { return directory + u'/' + name; }

private:
    [[nodiscard]] bool writeWhole(const QString &name, const QByteArray &content) const;
    [[nodiscard]] SetAside setAside(const QByteArray &name) const;

    QString directory;
};
