#include "SpoolDirectory.h"

#include "ServiceManager.h"
#include "SpoolScan.h"
#include "WholeFile.h"

#include <QDir>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <linux/magic.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto staleAge = 30s; // then the lock belongs to nobody
constexpr auto abandonedAge = 10ms; // see isAbandoned()
constexpr auto longestWait = 60s; // for a lock that others pass among themselves
constexpr mode_t ownLockMark = S_ISVTX; // has no other meaning for a regular file
constexpr auto settledAge = 3s; // file systems store times to 2 seconds or finer
constexpr auto reportedWait = 1s; // longer waits are reported to the operator
constexpr auto lockPoll = 100us; // between two checks of a waiting writer
constexpr mode_t newFileMode = 0666; // less the umask
const QString refusedFolder = u"refused"_s;
constexpr qsizetype maxForeign = 1'000; // files set aside at a time
constexpr mode_t newFolderMode = 0777; // less the umask
constexpr quint64 namesPerCheck = 1'024; // between two checks for an interruption
constexpr qint64 maxFileBytes = std::numeric_limits<quint32>::max(); // limit of a link record

qint64 nanoseconds(const timespec &time)
{
    return qint64(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

// Returns whether a file is on a local file system, where the kernel sees every process's locks.
bool isLocal(int file)
{
    constexpr decltype(statfs::f_type) local[] = {EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC,
        BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC, TMPFS_MAGIC, OVERLAYFS_SUPER_MAGIC};
    struct statfs system;
    return ::fstatfs(file, &system) == 0
        && std::find(std::begin(local), std::end(local), system.f_type) != std::end(local);
}

std::chrono::nanoseconds ageOf(qint64 modified)
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::nanoseconds(nanoseconds(now) - modified);
}

// Calls visit(name, isFile) for every visible name, in no particular order. isFile() tells whether
// the entry is a regular file and may cost a system call. Returns false if the directory was not
// read to its end, because of an error or because the calling thread was interrupted.
template <typename Visit> bool forEachName(const QString &path, Visit visit)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(
        ::opendir(QFile::encodeName(path).constData()), ::closedir);
    if (!directory)
        return false;
    for (quint64 count = 1; const dirent *entry = ::readdir(directory.get()); ++count) {
        if (count % namesPerCheck == 0 && QThread::currentThread()->isInterruptionRequested())
            return false;
        if (entry->d_name[0] != '.')
            visit(QByteArrayView(entry->d_name),
                [&] { return isRegularFile(::dirfd(directory.get()), *entry); });
    }
    return true;
}

// Renames a file unless the new name is taken. Returns false with the reason in errno on failure.
bool renameWithoutReplacing(const QByteArray &from, const QByteArray &to)
{
    if (::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // Some file systems do not support the flag, but do support hard links.
    return ::link(from.constData(), to.constData()) == 0 && ::unlink(from.constData()) == 0;
}

} // namespace

bool isRegularFile(int directory, const dirent &entry)
{
    if (entry.d_type == DT_REG)
        return true;
    if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN)
        return false;
    struct stat target;
    return ::fstatat(directory, entry.d_name, &target, 0) == 0 && S_ISREG(target.st_mode);
}

bool isForeignName(QByteArrayView name)
{
    return !name.isValidUtf8() || name.startsWith("\xEF\xBB\xBF");
}

// --- SpoolLock ---

SpoolLock::SpoolLock(const QString &directoryPath, MessageSink messageSink)
    : directory(QFile::encodeName(directoryPath))
    , path(directory + '/' + fileName)
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

std::optional<SpoolLock::Snapshot> SpoolLock::snapshotOf(const QByteArray &path)
{
    struct stat info;
    if (::lstat(path.constData(), &info) != 0)
        return std::nullopt;
    const bool hasKernelLock = S_ISREG(info.st_mode) && (info.st_mode & ownLockMark) != 0;
    return Snapshot{info.st_ino, nanoseconds(info.st_mtim), hasKernelLock};
}

SpoolLock::State SpoolLock::look(Clock::time_point now)
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
        abandonedSince.reset();
    }
    lastSeen = current;

    if (ageOf(current->modified) > staleAge || now - unchangedSince > staleAge)
        return removeStale(*current,
            tr("nobody has held it for %1 seconds").arg(std::chrono::seconds(staleAge).count()));
    if (current->hasKernelLock && isAbandoned(now))
        return removeStale(*current, tr("its writer was killed"));
    if (!hasReportedWait && now - waitingSince > reportedWait) {
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
        abandonedSince.reset();
        return false;
    }
    if (!abandonedSince)
        abandonedSince = now;
    return now - *abandonedSince >= abandonedAge;
}

SpoolLock::State SpoolLock::removeStale(const Snapshot &stale, const QString &reason)
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
        const State state = look();
        if (state == State::Stuck)
            return false;
        if (Clock::now() - start > longestWait) {
            errno = EBUSY;
            return false;
        }
        if (state != State::Held)
            continue;
        ServiceManager::sayAlive(); // the wait is bounded by the limits above
        std::this_thread::sleep_for(lockPoll);
    }
    return true;
}

// --- SpoolFile ---

bool SpoolFile::Mark::operator==(const Mark &other) const
{
    return modified == other.modified && size == other.size
        && (inode == other.inode || (isSettled && other.isSettled));
}

SpoolFile::SpoolFile(const QString &path)
    : file([&] {
        struct stat info;
        Descriptor opened(openRegularFile(path, info));
        if (!opened.isOpen() || info.st_size > maxFileBytes)
            return -1;
        fileMark = markOf(info);
        return opened.release();
    }())
{
}

SpoolFile::Mark SpoolFile::markOf(const struct stat &info)
{
    const qint64 modified = nanoseconds(info.st_mtim);
    return {info.st_ino, modified, info.st_size, std::chrono::abs(ageOf(modified)) > settledAge};
}

std::optional<QByteArray> SpoolFile::read(qsizetype headerBytes) const
{
    if (!isOpen())
        return std::nullopt;
    QByteArray content(headerBytes + fileMark.size, Qt::Uninitialized);
    qsizetype filled = headerBytes;
    while (filled < content.size()) {
        const ssize_t count =
            ::read(file.get(), content.data() + filled, size_t(content.size() - filled));
        if (count < 0 && errno != EINTR)
            return std::nullopt;
        if (count == 0)
            break; // the file was truncated meanwhile
        filled += std::max<ssize_t>(count, 0);
    }
    content.truncate(filled);
    return content;
}

// --- SpoolDirectory ---

SpoolDirectory::SpoolDirectory(QString directoryPath)
    : directory(std::move(directoryPath))
{
}

SpoolDirectory::WriteResult SpoolDirectory::write(
    const QString &name, const QByteArray &content, const MessageSink &report) const
{
    SpoolLock lock(directory, report);
    if (!lock.acquire() && errno != EBUSY)
        return WriteResult::NoLock;
    // If the lock is never free the file is written without it, which is safe because the file
    // appears whole.
    if (!isPlainName(name) || !writeWhole(name, content))
        return WriteResult::NoFile;
    return WriteResult::Written;
}

bool SpoolDirectory::writeWhole(const QString &name, const QByteArray &content) const
{
    WholeFile file(pathOf(name));
    return file.write(content) && file.commit();
}

SpoolListing SpoolDirectory::list() const
{
    SpoolScan scan(directory, {}, std::numeric_limits<size_t>::max() / 4);
    std::ignore = scan.goOn();
    return scan.takeNames();
}

QString SpoolDirectory::first(
    const std::function<bool(const QString &)> &isSkipped, bool &hasForeign) const
{
    QByteArray best, bestKey;
    hasForeign = false;
    const bool isRead = forEachName(directory, [&](QByteArrayView name, auto isFile) {
        if (isForeignName(name))
            hasForeign = true;
        if (isForeignName(name) || (!best.isEmpty() && !SpoolName::isBefore(name, {bestKey, best})))
            return;
        if (isSkipped(QString::fromUtf8(name)) || !isFile())
            return;
        best = name.toByteArray();
        bestKey = SpoolName::keyOf(best);
    });
    return isRead ? QString::fromUtf8(best) : QString();
}

std::optional<SpoolDirectory::Mark> SpoolDirectory::mark(const QString &name) const
{
    struct stat info;
    if (::stat(QFile::encodeName(pathOf(name)).constData(), &info) != 0)
        return std::nullopt;
    return SpoolFile::markOf(info);
}

bool SpoolDirectory::remove(const QString &name) const
{
    return ::unlink(QFile::encodeName(pathOf(name)).constData()) == 0 || errno == ENOENT;
}

// Renames the file before it compares the mark. If it compared first, a new file that appears
// before the removal would be removed unsent.
SpoolDirectory::Removal SpoolDirectory::remove(const QString &name, const Mark &mark) const
{
    const QByteArray listed = QFile::encodeName(pathOf(name));
    const QByteArray hidden = QFile::encodeName(pathOf(QString::fromLatin1(incomingPrefix)))
        + "gone-" + QByteArray::number(::getpid());
    if (std::rename(listed.constData(), hidden.constData()) != 0)
        return errno == ENOENT ? Removal::Removed : Removal::Failed;
    struct stat info;
    const bool isSame = ::stat(hidden.constData(), &info) != 0 || SpoolFile::markOf(info) == mark;
    // If yet another file has taken the name since, that one is newer and stays.
    const bool isBack = !isSame && renameWithoutReplacing(hidden, listed);
    if (!isBack)
        ::unlink(hidden.constData());
    return isSame ? Removal::Removed : Removal::Replaced;
}

SpoolDirectory::SetAside SpoolDirectory::setAside(const QString &name) const
{
    return setAside(QFile::encodeName(name));
}

SpoolDirectory::SetAside SpoolDirectory::setAside(const QByteArray &name) const
{
    const QByteArray from = QFile::encodeName(directory) + '/' + name;
    ::mkdir(QFile::encodeName(pathOf(refusedFolder)).constData(), newFolderMode);
    const QByteArray wanted = QFile::encodeName(pathOf(refusedFolder)) + '/' + name;
    QByteArray to = wanted;
    for (int number = 1; !renameWithoutReplacing(from, to); ++number) {
        if (errno != EEXIST)
            return ::access(from.constData(), F_OK) == 0 ? SetAside::Failed : SetAside::Gone;
        to = wanted + '.' + QByteArray::number(number);
    }
    return SetAside::Moved;
}

void SpoolDirectory::setForeignNamesAside(const MessageSink &report, bool &hasFailed) const
{
    QByteArrayList foreign;
    forEachName(directory, [&](QByteArrayView name, auto isFile) {
        if (isForeignName(name) && foreign.size() < maxForeign && isFile())
            foreign.append(name.toByteArray());
    });
    const bool hadFailed = std::exchange(hasFailed, false);
    for (const QByteArray &name : std::as_const(foreign)) {
        const SetAside result = setAside(name);
        hasFailed |= result == SetAside::Failed;
        // Shows printable characters as they are and percent-encodes the other bytes.
        const QString shown = QString::fromLatin1(name.toPercentEncoding(" !#$&'()*+,:;=?@[]"));
        if (result == SetAside::Moved)
            report(tr("Refused file %1: its name is no UTF-8 text").arg(pathOf(shown)));
        else if (result == SetAside::Failed && !hadFailed)
            report(tr("Can't move file %1, whose name is no UTF-8 text").arg(pathOf(shown)));
    }
}

bool SpoolDirectory::removeLeftovers(SpoolLock &lock) const
{
    QStringList leftovers; // not from QDir, which would keep data about every waiting file
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(
        ::opendir(QFile::encodeName(directory).constData()), ::closedir);
    while (const dirent *entry = entries ? ::readdir(entries.get()) : nullptr) {
        if (std::strncmp(entry->d_name, incomingPrefix, std::strlen(incomingPrefix)) == 0)
            leftovers.append(QFile::decodeName(entry->d_name));
    }
    if (leftovers.isEmpty())
        return true;
    // While we hold the lock, none of these files belongs to a living writer.
    if (lock.look() != SpoolLock::State::Free || !lock.tryAcquire())
        return false;
    const bool allGone = std::all_of(
        leftovers.begin(), leftovers.end(), [this](const QString &name) { return remove(name); });
    lock.release();
    return allGone;
}
