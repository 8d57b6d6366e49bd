#include "SpoolDirectory.h"

#include "FileCalls.h"
#include "FileName.h"
#include "SpoolLayout.h"
#include "SpoolLock.h"
#include "SpoolScan.h"
#include "WholeFile.h"

#include <QFile>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qsizetype maxForeignAtATime = 1'000;
constexpr mode_t newFolderMode = 0777; // less the umask
constexpr quint64 namesPerInterruptionCheck = 1'024;

// Calls visit(name, isFile) for every visible name, in no particular order. isFile() tells whether
// the entry is a regular file and may cost a system call. Returns false if the directory was not
// read to its end, because of an error or because the calling thread was interrupted.
template <typename Visit> bool forEachName(const SpoolDirectory &spool, Visit visit)
{
    const OpenFolder directory = openFolder(spool.encodedPath());
    if (!directory)
        return false;
    for (quint64 count = 1; const dirent *entry = ::readdir(directory.get()); ++count) {
        if (count % namesPerInterruptionCheck == 0
            && QThread::currentThread()->isInterruptionRequested())
            return false;
        if (entry->d_name[0] != '.')
            visit(QByteArrayView(entry->d_name),
                [&] { return isRegularFile(::dirfd(directory.get()), *entry); });
    }
    return true;
}

} // namespace

SpoolDirectory::SpoolDirectory(QString directoryPath)
    : directory(std::move(directoryPath))
    , encoded(QFile::encodeName(directory))
{
}

SpoolDirectory::WriteResult SpoolDirectory::write(
    const QString &name, const QByteArray &content, const MessageSink &report) const
{
    SpoolLock lock(*this, report);
    if (!lock.acquire() && errno != EBUSY)
        return WriteResult::NoLock;
    // If the lock is never free the file is written without it, which is safe because the file
    // appears whole.
    if (!isPlainName(name)) {
        errno = EINVAL;
        return WriteResult::NoFile;
    }
    return writeWhole(name, content) ? WriteResult::Written : WriteResult::NoFile;
}

bool SpoolDirectory::writeWhole(const QString &name, const QByteArray &content) const
{
    WholeFile file(pathOf(name));
    return file.write(content) && file.commit();
}

SpoolListing SpoolDirectory::list() const
{
    SpoolScan scan(*this, {}, std::numeric_limits<size_t>::max() / 4);
    std::ignore = scan.readUntil(QDeadlineTimer::Forever);
    return scan.takeNames();
}

SpoolDirectory::First SpoolDirectory::first(
    const std::function<bool(const QString &)> &isSkipped) const
{
    QByteArray best, bestKey;
    bool hasForeign = false;
    const bool isRead = forEachName(*this, [&](QByteArrayView name, auto isFile) {
        if (isForeignName(name))
            hasForeign = true;
        if (isForeignName(name) || (!best.isEmpty() && !SpoolName::isBefore(name, {bestKey, best})))
            return;
        if (isSkipped(QString::fromUtf8(name)) || !isFile())
            return;
        best = name.toByteArray();
        bestKey = SpoolName::keyOf(best);
    });
    return {isRead ? QString::fromUtf8(best) : QString(), hasForeign};
}

std::optional<SpoolDirectory::Mark> SpoolDirectory::mark(const QString &name) const
{
    struct stat info;
    if (::stat(encodedPathOf(QFile::encodeName(name)).constData(), &info) != 0)
        return std::nullopt;
    return SpoolFile::markOf(info);
}

bool SpoolDirectory::remove(const QString &name) const
{
    return ::unlink(encodedPathOf(QFile::encodeName(name)).constData()) == 0 || errno == ENOENT;
}

// Renames the file before it compares the mark. If it compared first, a new file that appears
// before the removal would be removed unsent.
SpoolDirectory::Removal SpoolDirectory::remove(const QString &name, const Mark &mark) const
{
    const QByteArray listed = encodedPathOf(QFile::encodeName(name));
    const QByteArray hidden =
        encodedPathOf(SpoolLayout::gonePrefix + QByteArray::number(::getpid()));
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
    const QByteArray from = encodedPathOf(name);
    const SpoolDirectory folder = refused();
    ::mkdir(folder.encoded.constData(), newFolderMode);
    const QByteArray wanted = folder.encodedPathOf(name);
    QByteArray to = wanted;
    for (int number = 1; !renameWithoutReplacing(from, to); ++number) {
        if (errno != EEXIST)
            return ::access(from.constData(), F_OK) == 0 ? SetAside::Failed : SetAside::Gone;
        to = wanted + '.' + QByteArray::number(number);
    }
    return SetAside::Moved;
}

SpoolDirectory SpoolDirectory::refused() const
{
    return SpoolDirectory(pathOf(QString::fromLatin1(SpoolLayout::refusedFolder)));
}

QString SpoolDirectory::nameBeforeRefusal(const QString &name) const
{
    const QString unnumbered = name.left(name.lastIndexOf(u'.'));
    return !unnumbered.isEmpty() && mark(unnumbered) ? unnumbered : name;
}

bool SpoolDirectory::setForeignNamesAside(const MessageSink &report, bool reportFailures) const
{
    QByteArrayList foreign;
    forEachName(*this, [&](QByteArrayView name, auto isFile) {
        if (isForeignName(name) && foreign.size() < maxForeignAtATime && isFile())
            foreign.append(name.toByteArray());
    });
    bool isDone = true;
    for (const QByteArray &name : std::as_const(foreign)) {
        const SetAside result = setAside(name);
        isDone &= result != SetAside::Failed;
        // Shows printable characters as they are and percent-encodes the other bytes.
        const QString shown = QString::fromLatin1(name.toPercentEncoding(" !#$&'()*+,:;=?@[]"));
        if (result == SetAside::Moved)
            report(tr("Refused file %1: its name is no UTF-8 text").arg(pathOf(shown)));
        else if (result == SetAside::Failed && reportFailures)
            report(tr("Can't move file %1, whose name is no UTF-8 text").arg(pathOf(shown)));
    }
    return isDone;
}

bool SpoolDirectory::removeLeftovers(SpoolLock &lock) const
{
    // Read without QDir, which would keep data about every waiting file.
    QStringList leftovers;
    const OpenFolder entries = openFolder(encoded);
    while (const dirent *entry = entries ? ::readdir(entries.get()) : nullptr) {
        if (std::string_view(entry->d_name).starts_with(SpoolLayout::incomingPrefix))
            leftovers.append(QFile::decodeName(entry->d_name));
    }
    if (leftovers.isEmpty())
        return true;
    // While we hold the lock, none of these files belongs to a living writer.
    if (lock.removeIfStale() != SpoolLock::State::Free || !lock.tryAcquire())
        return false;
    const bool allGone = std::all_of(
        leftovers.begin(), leftovers.end(), [this](const QString &name) { return remove(name); });
    lock.release();
    return allGone;
}
