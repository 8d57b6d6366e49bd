#include "SentFolder.h"

#include "FileTime.h"
#include "GiveBack.h"
#include "SpoolLayout.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr auto newOwnerTime = 2s; // a new owner has locked its folder by then

} // namespace

QStringList SentFolder::namesIn(const SpoolDirectory &spool)
{
    return QDir(spool.path())
        .entryList({QString::fromLatin1(SpoolLayout::sentPrefix) + u'*'},
            QDir::Dirs | QDir::Hidden | QDir::NoSymLinks, QDir::Name);
}

bool SentFolder::hasOwner(int folder)
{
    struct stat info;
    if (::fstat(folder, &info) != 0
        || std::chrono::abs(FileTime::age(FileTime::of(info.st_mtim))) < newOwnerTime)
        return true;
    if (::flock(folder, LOCK_SH | LOCK_NB) != 0)
        return errno == EWOULDBLOCK;
    ::flock(folder, LOCK_UN);
    return false;
}

SentFolder::SentFolder(const SpoolDirectory &spoolDirectory)
    : spool(spoolDirectory)
{
}

bool SentFolder::isGone() const
{
    struct stat info;
    return ::fstat(folder.get(), &info) == 0 && info.st_nlink == 0;
}

// Tries twice: before the new folder is locked, a process that is just starting may take it for a
// leftover and remove it.
bool SentFolder::open()
{
    if (folder.isOpen() && !isGone())
        return true;
    return make() || (errno == EAGAIN && make());
}

bool SentFolder::make()
{
    ownJournal.close();
    path = spool.encodedPathOf(SpoolLayout::sentPrefix) + "XXXXXX";
    if (!::mkdtemp(path.data()))
        return false;
    folder = Descriptor(::open(path.constData(), folderFlags));
    const int reason = errno;
    const bool isTaken =
        folder.isOpen() && ::flock(folder.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (folder.isOpen() && !isTaken && !isGone()) {
        // Without a journal every record becomes a file.
        std::ignore = ownJournal.create(folder.get());
        return true;
    }
    ::rmdir(path.constData());
    errno = folder.isOpen() ? EAGAIN : reason;
    folder = Descriptor();
    return false;
}

void SentFolder::close()
{
    if (!folder.isOpen() || !isEmpty())
        return;
    ::unlinkat(folder.get(), SpoolLayout::journalFile, 0);
    ::rmdir(path.constData());
    ownJournal.close();
    folder = Descriptor();
}

// --- files ---

SentFolder::Take SentFolder::take(
    const QString &name, const SpoolFile::Mark &mark, QByteArrayView content)
{
    Q_ASSERT(!holds(name));
    const QByteArray file = QFile::encodeName(name);
    const QByteArray listed = spool.encodedPathOf(file);
    if (open() && ::renameat(AT_FDCWD, listed.constData(), folder.get(), file.constData()) == 0) {
        heldFiles.insert(name);
        if (isUnchanged(file, mark, content))
            return Take::Taken;
        // Another writer has just changed or replaced the file, and the new content was not sent.
        giveBack(name);
        return Take::Replaced;
    }
    if (errno == ENOENT)
        return ::access(listed.constData(), F_OK) != 0 ? Take::Gone : Take::NoRoom;
    return errno == ENOSPC || errno == EDQUOT ? Take::NoRoom : Take::Stuck;
}

// Compares the content if only the inode differs, because some file systems change inode numbers.
bool SentFolder::isUnchanged(
    const QByteArray &file, const SpoolFile::Mark &mark, QByteArrayView content) const
{
    struct stat info;
    if (::fstatat(folder.get(), file.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return true;
    const bool isSymbolicLink = !S_ISREG(info.st_mode);
    if (isSymbolicLink)
        return true;
    const SpoolFile::Mark now = SpoolFile::markOf(info);
    if (now.size != mark.size || now.modified != mark.modified)
        return false;
    return now.inode == mark.inode
        || SpoolFile(QFile::decodeName(path + '/' + file)).read() == content;
}

void SentFolder::discard(const QString &name)
{
    ::unlinkat(folder.get(), QFile::encodeName(name).constData(), 0);
    heldFiles.remove(name);
}

bool SentFolder::giveBack(const QString &name)
{
    const QByteArray file = QFile::encodeName(name);
    if (!GiveBack::file(folder.get(), file.constData(), spool, file))
        return false;
    heldFiles.remove(name);
    return true;
}

bool SentFolder::giveAllBack()
{
    bool isDone = true;
    int reason = 0;
    const auto noteFailure = [&] {
        isDone = false;
        reason = errno;
    };
    const QSet<QString> names = heldFiles;
    for (const QString &name : names) {
        if (!giveBack(name))
            noteFailure();
    }
    quint64 givenBack = 0;
    const bool allRecords = ownJournal.forEach([&](const Journal::Entry &entry) {
        if (!GiveBack::record(folder.get(), entry, spool)) {
            noteFailure();
            return false;
        }
        givenBack = entry.end;
        return true;
    });
    ownJournal.free(allRecords ? ownJournal.end() : givenBack);
    errno = reason;
    return isDone;
}
