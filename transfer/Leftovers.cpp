#include "Leftovers.h"

#include "GiveBack.h"
#include "SentFolder.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr unsigned int timesMask = STATX_TYPE | STATX_BTIME | STATX_CTIME;

// Calls visit(name) for every entry of an open folder, until a stop is requested.
template <typename Visit>
void forEachEntry(int folder, const std::atomic<bool> &shallEnd, Visit visit)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(
        ::fdopendir(::openat(folder, ".", folderFlags)), ::closedir);
    while (const dirent *entry = entries && !shallEnd ? ::readdir(entries.get()) : nullptr)
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
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

// Returns when the system was started, in nanoseconds since the epoch.
qint64 startOfSystem()
{
    timespec now, running;
    ::clock_gettime(CLOCK_REALTIME, &now);
    ::clock_gettime(CLOCK_BOOTTIME, &running);
    return (now.tv_sec - running.tv_sec) * 1'000'000'000 + now.tv_nsec - running.tv_nsec;
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
                         : std::max(birthOf(descriptor.get(), Journal::fileName), qint64(1));
    }
};

Leftovers::Leftovers(const QString &spoolPath, MessageSink messageSink)
    : directory(spoolPath)
    , spool(QFile::encodeName(spoolPath))
    , report(std::move(messageSink))
{
}

Leftovers::~Leftovers() = default;

// --- whose folders they are ---

Leftovers::Folders Leftovers::endedOwners(const QByteArray &own)
{
    Folders folders;
    const Descriptor around(::open(spool.constData(), folderFlags & ~O_NOFOLLOW));
    if (!around.isOpen())
        return folders;
    forEachEntry(around.get(), shallEnd, [&](const char *name) {
        if (std::strncmp(name, SentFolder::prefix, std::strlen(SentFolder::prefix)) != 0
            || own == name)
            return;
        if (std::unique_ptr<Folder> folder = openIfEnded(name))
            folders.push_back(std::move(folder));
    });
    return folders;
}

std::unique_ptr<Leftovers::Folder> Leftovers::openIfEnded(const QByteArray &name)
{
    const QByteArray path = spool + '/' + name;
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

// Gives back the files first, so that setDoubtfulAside() finds all that a power cut may have damaged.
// Records need no such check: a damaged one is not found in the journal.
bool Leftovers::giveBack(const QByteArray &own, const NoteSynced &note)
{
    const Folders folders = endedOwners(own);
    qint64 cut = 0; // nanoseconds since the epoch: what is as young as this may be damaged
    qint64 lastSync = std::numeric_limits<qint64>::max();
    for (const std::unique_ptr<Folder> &folder : folders) {
        giveFilesBack(*folder);
        if (folder->isFromEarlierBoot())
            cut = std::max(cut, folder->syncedUntil());
        else if (folder->journal.isOpen())
            lastSync = std::min(lastSync, folder->syncedUntil());
    }
    if (cut > 0)
        setDoubtfulAside(cut);
    if (note)
        note(lastSync);
    bool isDone = true;
    for (const std::unique_ptr<Folder> &folder : folders)
        isDone = !shallEnd && giveRecordsBack(*folder) && isDone;
    return isDone;
}

void Leftovers::giveFilesBack(Folder &folder)
{
    forEachEntry(folder.descriptor.get(), shallEnd, [&](const char *name) {
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
    forEachEntry(folder.descriptor.get(), shallEnd,
        [&](const char *name) { ::unlinkat(folder.descriptor.get(), name, 0); });
    ::rmdir((spool + '/' + folder.name).constData());
    return true;
}

// Files that were made after the start of the system are not in doubt, unless the clock tells no
// such time.
void Leftovers::setDoubtfulAside(qint64 cut)
{
    const qint64 start =
        startOfSystem() > cut ? startOfSystem() : std::numeric_limits<qint64>::max();
    const Descriptor own(::open(spool.constData(), folderFlags & ~O_NOFOLLOW));
    QByteArrayList doubtful;
    forEachEntry(own.get(), shallEnd, [&](const char *name) {
        const qint64 birth = name[0] != '.' ? birthOf(own.get(), name) : 0;
        if (birth >= cut && birth < start)
            doubtful.append(name);
    });
    for (const QByteArray &name : std::as_const(doubtful)) {
        const QString shown = QFile::decodeName(name);
        if (directory.setAside(shown) == SpoolDirectory::SetAside::Moved)
            report(tr("Refused file %1: the system went down before it was surely on the disk")
                       .arg(directory.pathOf(shown)));
    }
}

void Leftovers::reportOnce(const QByteArray &folder, const QString &text)
{
    if (named.contains(folder))
        return;
    named.insert(folder);
    report(text.arg(directory.pathOf(QFile::decodeName(folder))));
}
