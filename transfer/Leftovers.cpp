#include "Leftovers.h"

#include "FileCalls.h"
#include "FileTime.h"
#include "GiveBack.h"
#include "Journal.h"
#include "SpoolLayout.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr unsigned int timesMask = STATX_TYPE | STATX_BTIME | STATX_CTIME;

// Calls visit(name) for every entry of an open folder, until a stop is requested.
template <typename Visit>
void forEachEntry(int folder, const std::atomic<bool> &stopRequested, Visit visit)
{
    const OpenFolder entries(::fdopendir(::openat(folder, ".", folderFlags)), ::closedir);
    while (const dirent *entry = entries && !stopRequested ? ::readdir(entries.get()) : nullptr)
        visit(entry->d_name);
}

// Returns when a regular file was created, or last changed if the file system does not store that,
// in nanoseconds since the epoch. Returns 0 for anything else.
qint64 birthOf(int folder, const char *name)
{
    struct statx info;
    if (::statx(folder, name, AT_SYMLINK_NOFOLLOW, timesMask, &info) != 0
        || !S_ISREG(info.stx_mode))
        return 0;
    const statx_timestamp &time = info.stx_mask & STATX_BTIME ? info.stx_btime : info.stx_ctime;
    return FileTime::of({time.tv_sec, time.tv_nsec});
}

// Returns when the system was started, in nanoseconds since the epoch.
qint64 startOfSystem()
{
    return FileTime::ofClock(CLOCK_REALTIME) - FileTime::ofClock(CLOCK_BOOTTIME);
}

bool differ(const QByteArray &a, const QByteArray &b)
{
    return !a.isEmpty() && !b.isEmpty() && a != b;
}

} // namespace

// The folder of a process that has ended. We hold the kernel's lock on it.
struct Leftovers::Folder
{
    QByteArray name;
    Descriptor descriptor;
    Journal journal; // not open if an older version has left the folder
    int failure = 0; // errno

    [[nodiscard]] bool isFromEarlierBoot() const
    {
        return journal.isOpen() && differ(journal.identity().boot, Journal::here().boot);
    }
    [[nodiscard]] bool isFromOtherHost() const
    {
        return isFromEarlierBoot() && differ(journal.identity().host, Journal::here().host);
    }
    // Until an owner notes a time, all that is older than its journal counts as on the disk.
    [[nodiscard]] qint64 syncedUntil() const
    {
        const qint64 noted = journal.syncedUntil();
        return noted > 0 ? noted
                         : std::max(birthOf(descriptor.get(), SpoolLayout::journalFile), qint64(1));
    }
};

Leftovers::Leftovers(const SpoolDirectory &spoolDirectory, MessageSink messageSink)
    : spool(spoolDirectory)
    , report(std::move(messageSink))
{
}

Leftovers::~Leftovers() = default;

// --- whose folders they are ---

Leftovers::Folders Leftovers::endedOwners(const QByteArray &own)
{
    Folders folders;
    const Descriptor around(::open(spool.encodedPath().constData(), folderFlags & ~O_NOFOLLOW));
    if (!around.isOpen())
        return folders;
    forEachEntry(around.get(), stopRequested, [&](const char *name) {
        if (!std::string_view(name).starts_with(SpoolLayout::sentPrefix) || own == name)
            return;
        if (std::unique_ptr<Folder> folder = openIfEnded(name))
            folders.push_back(std::move(folder));
    });
    return folders;
}

std::unique_ptr<Leftovers::Folder> Leftovers::openIfEnded(const QByteArray &name)
{
    const QByteArray path = spool.encodedPathOf(name);
    auto folder = std::make_unique<Folder>();
    folder->name = name;
    folder->descriptor = Descriptor(::open(path.constData(), folderFlags));
    if (!folder->descriptor.isOpen()) {
        if (errno == EACCES || errno == EPERM)
            reportOnce(name, tr("Records in %1 belong to another user and are not sent"));
        return nullptr;
    }
    const bool isLocked = ::flock(folder->descriptor.get(), LOCK_EX | LOCK_NB) == 0;
    if (!isLocked && errno == EWOULDBLOCK)
        return nullptr; // its owner lives
    std::ignore = folder->journal.open(folder->descriptor.get());
    if (folder->isFromOtherHost()) {
        reportOnce(name, tr("Records in %1 belong to another host and are not sent from here"));
        return nullptr;
    }
    // Without kernel locks only a start of the system proves that the owner has ended.
    if (!isLocked && !folder->isFromEarlierBoot()) {
        reportOnce(name,
            tr("Records in %1 are not sent: this file system has no locks to tell "
               "whether their module runs"));
        return nullptr;
    }
    return folder;
}

// --- back into the spool ---

// Gives back the files first, so that setDoubtfulAside() finds all that a power cut may have
// damaged. Records need no such check: a damaged one is not found in the journal.
bool Leftovers::giveBack(const QByteArray &own, const NoteSynced &note)
{
    const Folders folders = endedOwners(own);
    qint64 doubtfulSince = 0; // nanoseconds since the epoch
    qint64 lastSync = std::numeric_limits<qint64>::max();
    for (const std::unique_ptr<Folder> &folder : folders) {
        giveFilesBack(*folder);
        if (folder->isFromEarlierBoot())
            doubtfulSince = std::max(doubtfulSince, folder->syncedUntil());
        else if (folder->journal.isOpen())
            lastSync = std::min(lastSync, folder->syncedUntil());
    }
    if (doubtfulSince > 0)
        setDoubtfulAside(doubtfulSince);
    if (note)
        note(lastSync);
    bool isDone = true;
    for (const std::unique_ptr<Folder> &folder : folders)
        isDone = !stopRequested && giveRecordsBack(*folder) && isDone;
    return isDone;
}

void Leftovers::giveFilesBack(Folder &folder)
{
    forEachEntry(folder.descriptor.get(), stopRequested, [&](const char *name) {
        if (name[0] != '.' && !GiveBack::file(folder.descriptor.get(), name, spool, name))
            folder.failure = errno;
    });
}

bool Leftovers::giveRecordsBack(Folder &folder)
{
    std::ignore = folder.journal.forEach([&](const Journal::Entry &entry) {
        if (!GiveBack::record(folder.descriptor.get(), entry, spool)) {
            folder.failure = errno;
            return false;
        }
        folder.journal.free(entry.end);
        return true;
    });
    if (folder.failure != 0) {
        reportOnce(folder.name,
            tr("Records in %1 cannot go back into the spool yet: ")
                + qt_error_string(folder.failure));
        return false;
    }
    forEachEntry(folder.descriptor.get(), stopRequested,
        [&](const char *name) { ::unlinkat(folder.descriptor.get(), name, 0); });
    ::rmdir(spool.encodedPathOf(folder.name).constData());
    return true;
}

// Sets aside the files that were created from `since` until the system started. If the clock puts
// the start before `since`, it does not tell which files are later, so all of them are in doubt.
void Leftovers::setDoubtfulAside(qint64 since)
{
    const qint64 start =
        startOfSystem() > since ? startOfSystem() : std::numeric_limits<qint64>::max();
    const Descriptor own(::open(spool.encodedPath().constData(), folderFlags & ~O_NOFOLLOW));
    QByteArrayList doubtful;
    forEachEntry(own.get(), stopRequested, [&](const char *name) {
        const qint64 birth = name[0] != '.' ? birthOf(own.get(), name) : 0;
        if (birth >= since && birth < start)
            doubtful.append(name);
    });
    for (const QByteArray &name : std::as_const(doubtful)) {
        const QString shown = QFile::decodeName(name);
        if (spool.setAside(shown) == SpoolDirectory::SetAside::Moved)
            report(tr("Refused file %1: the system went down before it was surely on the disk")
                       .arg(spool.pathOf(shown)));
    }
}

void Leftovers::reportOnce(const QByteArray &folder, const QString &text)
{
    if (reportedFolders.contains(folder))
        return;
    reportedFolders.insert(folder);
    report(text.arg(spool.pathOf(QFile::decodeName(folder))));
}
