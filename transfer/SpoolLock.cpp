#include "SpoolLock.h"

#include "Descriptor.h"
#include "FileCalls.h"
#include "FileTime.h"
#include "ServiceManager.h"
#include "SpoolDirectory.h"
#include "SpoolLayout.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto staleAge = 30s;
constexpr auto abandonedAge = 10ms; // see isAbandoned()
constexpr auto longestWait = 60s; // while others pass the lock among themselves
constexpr auto longestUnreportedWait = 1s;
constexpr auto checkInterval = 100us;
constexpr mode_t ownLockMark = S_ISVTX; // has no other meaning for a regular file

// Returns whether a file is on a local file system, where the kernel sees every process's locks.
bool isLocal(int file)
{
    constexpr decltype(statfs::f_type) local[] = {EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC,
        BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC, TMPFS_MAGIC, OVERLAYFS_SUPER_MAGIC};
    struct statfs system;
    return ::fstatfs(file, &system) == 0
        && std::find(std::begin(local), std::end(local), system.f_type) != std::end(local);
}

} // namespace

SpoolLock::SpoolLock(const SpoolDirectory &spool, MessageSink messageSink)
    : directory(spool.encodedPath())
    , path(spool.encodedPathOf(SpoolLayout::lockFile))
    , report(std::move(messageSink))
{
}

SpoolLock::~SpoolLock()
{
    release();
}

void SpoolLock::release()
{
    if (descriptor < 0)
        return;
    // If another process took this lock for stale and removed it, the name may belong to somebody
    // else now.
    struct stat own;
    if (::fstat(descriptor, &own) == 0 && own.st_nlink > 0)
        ::unlink(path.constData());
    ::close(std::exchange(descriptor, -1));
}

std::optional<qint64> SpoolLock::timeIn(const SpoolDirectory &spool)
{
    const std::optional<Snapshot> current = snapshotOf(spool.encodedPathOf(SpoolLayout::lockFile));
    return current ? std::optional(current->modified) : std::nullopt;
}

std::optional<SpoolLock::Snapshot> SpoolLock::snapshotOf(const QByteArray &path)
{
    struct stat info;
    if (::lstat(path.constData(), &info) != 0)
        return std::nullopt;
    const bool isLockedWhileOwned = S_ISREG(info.st_mode) && (info.st_mode & ownLockMark) != 0;
    return Snapshot{info.st_ino, FileTime::of(info.st_mtim), isLockedWhileOwned};
}

SpoolLock::State SpoolLock::removeIfStale(Clock::time_point now)
{
    const std::optional<Snapshot> current = snapshotOf(path);
    if (!current) {
        lastSeen.reset();
        return State::Free;
    }
    if (!lastSeen)
        waitingSince = now;
    if (lastSeen != current) {
        unchangedSince = now;
        unlockedSince.reset();
    }
    lastSeen = current;

    if (FileTime::age(current->modified) > staleAge || now - unchangedSince > staleAge)
        return removeUnlessChanged(*current,
            tr("nobody has held it for %1 seconds").arg(std::chrono::seconds(staleAge).count()));
    if (current->isLockedWhileOwned && isAbandoned(now))
        return removeUnlessChanged(*current, tr("its writer was killed"));
    if (!hasReportedWait && now - waitingSince > longestUnreportedWait) {
        hasReportedWait = true;
        report(tr("Waiting for the lock file %1").arg(QFile::decodeName(path)));
    }
    return State::Held;
}

// Returns whether the writer was killed. A writer takes the kernel's lock just after it creates the
// file, so the file counts as abandoned only after a moment without the lock. Never true on a
// network file system, where other hosts' locks may be invisible.
bool SpoolLock::isAbandoned(Clock::time_point now)
{
    const Descriptor file(::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info;
    if (!file.isOpen() || ::fstat(file.get(), &info) != 0 || info.st_ino != lastSeen->inode
        || !isLocal(file.get()) || ::flock(file.get(), LOCK_SH | LOCK_NB) != 0) {
        unlockedSince.reset();
        return false;
    }
    if (!unlockedSince)
        unlockedSince = now;
    return now - *unlockedSince >= abandonedAge;
}

SpoolLock::State SpoolLock::removeUnlessChanged(const Snapshot &stale, const QString &reason)
{
    // Two waiters may find the same stale lock. Each checks again under the folder's kernel lock,
    // so that the second does not remove a new lock that the first has created since. Goes on
    // without the kernel lock if it is not supported or if somebody holds it for long.
    const Descriptor guard(::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (guard.isOpen() && ::flock(guard.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK
        && Clock::now() - unchangedSince <= 2 * staleAge)
        return State::Held; // another waiter is removing it
    if (snapshotOf(path) != stale)
        return State::Held;
    if (std::remove(path.constData()) != 0)
        return State::Stuck;
    lastSeen.reset();
    report(tr("Removed the lock file %1: %2").arg(QFile::decodeName(path), reason));
    return State::Free;
}

bool SpoolLock::tryAcquire()
{
    Q_ASSERT(descriptor < 0);
    descriptor = ::open(
        path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, newFileMode | ownLockMark);
    if (descriptor < 0)
        return false;
    ::flock(descriptor, LOCK_EX | LOCK_NB);
    return true;
}

bool SpoolLock::acquire()
{
    const Clock::time_point start = Clock::now();
    while (!tryAcquire()) {
        if (errno != EEXIST)
            return false;
        const State state = removeIfStale();
        if (state == State::Stuck)
            return false;
        if (Clock::now() - start > longestWait) {
            errno = EBUSY;
            return false;
        }
        if (state != State::Held)
            continue;
        ServiceManager::sayAlive(); // the wait is bounded by the limits above
        std::this_thread::sleep_for(checkInterval);
    }
    return true;
}
