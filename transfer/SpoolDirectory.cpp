#include "SpoolDirectory.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto staleAge = 30s; // a lock that old belongs to nobody
constexpr auto longWait = 1s; // a wait that an operator should hear of
constexpr auto lockPoll = 100us; // between two looks of a waiting writer
constexpr mode_t newFileMode = 0666; // less the umask
constexpr qint64 maxFileBytes = std::numeric_limits<quint32>::max(); // what a link record can carry

// A file descriptor that is closed at the end of its scope.
class Descriptor
{
public:
    explicit Descriptor(int descriptor)
        : number(descriptor)
    {
    }
    ~Descriptor()
    {
        if (number >= 0)
            ::close(number);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    [[nodiscard]] bool isOpen() const { return number >= 0; }
    [[nodiscard]] int get() const { return number; }

private:
    int number;
};

qint64 nanoseconds(const timespec &time)
{
    return qint64(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

std::chrono::nanoseconds ageOf(qint64 modified)
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::nanoseconds(nanoseconds(now) - modified);
}

bool writeAll(int descriptor, const QByteArray &content)
{
    qsizetype written = 0;
    while (written < content.size()) {
        const ssize_t count =
            ::write(descriptor, content.constData() + written, size_t(content.size() - written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        written += count;
    }
    return true;
}

bool isPlainName(const QString &name)
{
    return !name.isEmpty() && !name.startsWith(u'.') && !name.contains(u'/')
        && !name.contains(QChar(u'\0'));
}

bool isRegularFile(int directory, const dirent &entry)
{
    if (entry.d_type == DT_REG)
        return true;
    if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN)
        return false;
    struct stat target;
    return ::fstatat(directory, entry.d_name, &target, 0) == 0 && S_ISREG(target.st_mode);
}

// Calls visit(name) for every file that is to be sent, in no order. A name that is not valid UTF-8
// cannot be written as a QString and so cannot be opened: it is left out.
template <typename Visit> void forEachFile(const QString &path, Visit visit)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(
        ::opendir(QFile::encodeName(path).constData()), ::closedir);
    if (!directory)
        return;
    while (const dirent *entry = ::readdir(directory.get())) {
        if (entry->d_name[0] == '.' || !isRegularFile(::dirfd(directory.get()), *entry))
            continue;
        const QString name = QFile::decodeName(entry->d_name);
        if (QFile::encodeName(name) == entry->d_name)
            visit(name);
    }
}

// A name with the key that the order of sending compares, code unit by code unit. Names that differ
// in letter case only are put in a fixed order too.
struct SortedName
{
    QString key;
    QString name;
    explicit SortedName(const QString &fileName)
        : key(fileName.toLower())
        , name(fileName)
    {
    }
    bool operator<(const SortedName &other) const
    {
        return key != other.key ? key < other.key : name < other.name;
    }
};

} // namespace

// --- SpoolLock ---

SpoolLock::SpoolLock(const QString &directoryPath, Say sayTo)
    : directory(QFile::encodeName(directoryPath))
    , path(directory + "/.lock")
    , say(std::move(sayTo))
{
}

SpoolLock::~SpoolLock()
{
    if (descriptor < 0)
        return;
    // A lock that was taken for stale meanwhile is gone, and the name may be another writer's.
    struct stat own;
    if (::fstat(descriptor, &own) == 0 && own.st_nlink > 0)
        ::unlink(path.constData());
    ::close(descriptor);
}

std::optional<SpoolLock::Mark> SpoolLock::markOf(const QByteArray &path)
{
    struct stat info;
    if (::lstat(path.constData(), &info) != 0)
        return std::nullopt;
    return Mark{info.st_ino, nanoseconds(info.st_mtim)};
}

SpoolLock::State SpoolLock::look(Clock::time_point now)
{
    const std::optional<Mark> mark = markOf(path);
    if (!mark) {
        seen.reset();
        return State::Free;
    }
    if (!seen)
        waitingSince = now;
    if (seen != mark)
        unchangedSince = now;
    seen = mark;

    if (ageOf(mark->modified) > staleAge || now - unchangedSince > staleAge)
        return removeStale(*mark);
    if (!saidHeld && now - waitingSince > longWait) {
        saidHeld = true;
        say(tr("Waiting for the lock file %1").arg(QFile::decodeName(path)));
    }
    return State::Held;
}

SpoolLock::State SpoolLock::removeStale(const Mark &stale)
{
    // Two waiters may find the same stale lock. Under the directory's kernel lock each looks once
    // more, so that the second one does not remove the lock that the first has made since.
    const Descriptor guard(::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (guard.isOpen())
        ::flock(guard.get(), LOCK_EX);
    if (markOf(path) != stale)
        return State::Held;
    if (std::remove(path.constData()) != 0)
        return State::Stuck;
    seen.reset();
    say(tr("Removed the lock file %1: nobody has held it for %2 seconds")
            .arg(QFile::decodeName(path))
            .arg(std::chrono::seconds(staleAge).count()));
    return State::Free;
}

bool SpoolLock::acquire()
{
    for (;;) {
        descriptor = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, newFileMode);
        if (descriptor >= 0)
            return true;
        if (errno != EEXIST)
            return false;
        const State state = look();
        if (state == State::Stuck)
            return false;
        if (state == State::Held)
            std::this_thread::sleep_for(lockPoll);
    }
}

// --- SpoolDirectory ---

SpoolDirectory::SpoolDirectory(QString directoryPath)
    : path(std::move(directoryPath))
{
}

SpoolDirectory::WriteResult SpoolDirectory::write(
    const QString &name, const QByteArray &content, const Say &say) const
{
    SpoolLock lock(path, say);
    if (!lock.acquire())
        return WriteResult::NoLock;
    if (!isPlainName(name) || !writeWhole(name, content))
        return WriteResult::NoFile;
    return WriteResult::Written;
}

// A crash before the rename leaves the hidden file only, which is never sent. Its name holds the
// process id: a writer that was taken for dead may still be writing its own.
bool SpoolDirectory::writeWhole(const QString &name, const QByteArray &content) const
{
    const QByteArray hidden =
        QFile::encodeName(pathOf(u".incoming-%1"_s.arg(QCoreApplication::applicationPid())));
    const QByteArray final = QFile::encodeName(pathOf(name));
    const bool written = [&] {
        const Descriptor file(
            ::open(hidden.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, newFileMode));
        return file.isOpen() && writeAll(file.get(), content);
    }();
    if (written && ::rename(hidden.constData(), final.constData()) == 0)
        return true;
    ::unlink(hidden.constData());
    return false;
}

QStringList SpoolDirectory::list() const
{
    std::vector<SortedName> files;
    forEachFile(path, [&](const QString &name) { files.emplace_back(name); });
    std::sort(files.begin(), files.end());
    QStringList names;
    names.reserve(qsizetype(files.size()));
    for (SortedName &file : files)
        names.append(std::move(file.name));
    return names;
}

std::optional<QByteArray> SpoolDirectory::read(const QString &name) const
{
    // Without O_NONBLOCK a FIFO that has taken a file's place would block for ever.
    const Descriptor file(
        ::open(QFile::encodeName(pathOf(name)).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info;
    if (!file.isOpen() || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)
        || info.st_size > maxFileBytes)
        return std::nullopt;

    QByteArray content(info.st_size, Qt::Uninitialized);
    qsizetype filled = 0;
    while (filled < content.size()) {
        const ssize_t count =
            ::read(file.get(), content.data() + filled, size_t(content.size() - filled));
        if (count < 0 && errno != EINTR)
            return std::nullopt;
        if (count == 0)
            break; // cut short by somebody meanwhile
        filled += std::max<ssize_t>(count, 0);
    }
    content.truncate(filled);
    return content;
}

bool SpoolDirectory::remove(const QString &name) const
{
    return ::unlink(QFile::encodeName(pathOf(name)).constData()) == 0 || errno == ENOENT;
}
