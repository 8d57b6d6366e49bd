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

// Whether an entry of an open directory is a regular file, or a link to one.
[[nodiscard]] bool isRegularFile(int directory, const dirent &entry);
// Whether a name in file system encoding is one that a QString cannot hold: no UTF-8, or with a
// byte order mark in front. It would be read as another file's.
[[nodiscard]] bool isForeignName(QByteArrayView name);

// The lock file of a spool directory, as one waiting writer or reader sees it.
//
// The file is there while a writer is at work. One that is older than 30 seconds, or that the
// waiter has seen unchanged for 30 seconds (clocks differ), belongs to nobody and is removed. A
// writer of this kind marks its file and holds the kernel's lock on it as long as it lives, so the
// file of one that was killed is removed at once.
//
// Owner:   whoever waits, for one wait. The destructor releases an acquired lock, too.
// Thread:  any one thread.
// Errors:  never throws; long waits and removed locks are said, once each.
class SpoolLock
{
    Q_DECLARE_TR_FUNCTIONS(SpoolLock)
public:
    using Clock = std::chrono::steady_clock;
    enum class State {
        Free,
        Held,
        Stuck // it belongs to nobody, but cannot be removed
    };

    static constexpr char fileName[] = ".lock";

    SpoolLock(const QString &directory, MessageSink report);
    ~SpoolLock();
    SpoolLock(const SpoolLock &) = delete;
    SpoolLock &operator=(const SpoolLock &) = delete;

    // One look, without waiting.
    [[nodiscard]] State look(Clock::time_point now = Clock::now());

    // Takes the lock if it is free; the reason why not is in errno.
    [[nodiscard]] bool tryAcquire();
    // Waits until the lock is free and takes it. False, with the reason in errno, if it cannot be
    // taken; EBUSY if others have passed it on among themselves for a minute.
    [[nodiscard]] bool acquire();
    // Releases an acquired lock.
    void release();

private:
    struct Mark
    {
        quint64 inode;
        qint64 modified; // nanoseconds since the epoch
        bool isOwnKind; // its writer holds the kernel's lock on it
        bool operator==(const Mark &) const = default;
    };
    [[nodiscard]] static std::optional<Mark> markOf(const QByteArray &path);
    [[nodiscard]] bool isAbandoned(Clock::time_point now);
    [[nodiscard]] State removeStale(const Mark &stale, const QString &reason);

    const QByteArray directory; // file system encoding, as path
    const QByteArray path;
    const MessageSink report;
    Clock::time_point waitingSince;
    Clock::time_point unchangedSince;
    std::optional<Clock::time_point> abandonedSince; // its writer's kernel lock is not held
    std::optional<Mark> seen;
    bool saidHeld = false;
    int descriptor = -1; // of the lock file while it is ours
};

// A spool file that is open for reading, whatever becomes of its name meanwhile.
//
// Owner:   whoever sends it.
// Thread:  any one thread.
// Errors:  never throws; a file that cannot be sent is not open.
class SpoolFile
{
public:
    // Tells a file from one that has replaced it under the same name.
    //
    // Size and time tell, but for files that were changed shortly before the mark was taken: within
    // one tick of its clock a file system gives two files the same time. Only those must have the
    // same inode, too; some file systems change that number by themselves.
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
    // The content; in front of it so many bytes are left for the caller to fill, which saves him a
    // copy. Nothing if it cannot be read.
    [[nodiscard]] std::optional<QByteArray> read(qsizetype room = 0) const;

private:
    Mark fileMark{};
    Descriptor file;
};

// The directory in which every record waits as one file until it is sent.
//
// Names that begin with a dot are never listed: the lock file and files that are being written.
//
// Thread:  any; objects are cheap and hold no state but the path.
// Errors:  never throws; results say what failed.
class SpoolDirectory
{
    Q_DECLARE_TR_FUNCTIONS(SpoolDirectory)
public:
    enum class WriteResult { Written, NoLock, NoFile };
    enum class SetAside { Moved, Gone, Failed };

    using Mark = SpoolFile::Mark;

    explicit SpoolDirectory(QString path);

    // Writes a file under the lock, whole or not at all, replacing one of the same name. Only plain
    // names can be written: not empty, no "/" or zero character, no dot in front.
    [[nodiscard]] WriteResult write(
        const QString &name, const QByteArray &content, const MessageSink &report) const;

    // All files that wait, in the order of sending: by name, ignoring letter case. SpoolScan lists
    // them in pieces.
    [[nodiscard]] SpoolListing list() const;

    // The file that list() has in front, but for skipped ones; an empty name if there is none. One
    // pass over the directory, without sorting and without a call or an allocation per file. It
    // ends early, with an empty name, when the calling thread is asked to end
    // (QThread::requestInterruption()). hasForeign tells whether a call of setForeignNamesAside()
    // has something to do.
    [[nodiscard]] QString first(
        const std::function<bool(const QString &)> &isSkipped, bool &hasForeign) const;

    // Nothing if the file is gone.
    [[nodiscard]] std::optional<Mark> mark(const QString &name) const;

    // Not open if the file is gone, unreadable, not a regular file or larger than 4 GiB.
    [[nodiscard]] SpoolFile open(const QString &name) const { return SpoolFile(pathOf(name)); }

    enum class Removal { Removed, Replaced, Failed };
    // Removes the file unless another one has taken its place, which stays.
    [[nodiscard]] Removal remove(const QString &name, const Mark &mark) const;
    // False if the file is still there afterwards.
    [[nodiscard]] bool remove(const QString &name) const;

    // Moves a file that can never be sent to the folder "refused" of the directory, which is made
    // when needed and never listed. A number is appended to a name that is taken there: nothing is
    // ever overwritten.
    [[nodiscard]] SetAside setAside(const QString &name) const;

    // Sets those files aside whose names are no UTF-8 or begin with a byte order mark: such names
    // cannot be told from those of other files, and neither list() nor first() gives them. Says so
    // for each. One that cannot be moved is said when the last call had no such failure; the
    // caller keeps hasFailed from call to call, false at first.
    void setForeignNamesAside(const MessageSink &report, bool &hasFailed) const;

    // Removes what writers have left behind that were killed. False, and nothing done, while a
    // writer may be at work; the lock is the caller's own, which has not been acquired.
    [[nodiscard]] bool removeLeftovers(SpoolLock &lock) const;

    [[nodiscard]] const QString &path() const { return directory; }
    [[nodiscard]] QString pathOf(const QString &name) const { return directory + u'/' + name; }

private:
    [[nodiscard]] bool writeWhole(const QString &name, const QByteArray &content) const;
    [[nodiscard]] SetAside setAside(const QByteArray &name) const;

    QString directory;
};
