#include "SentFolder.h"

#include "GiveBack.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

} // namespace

SentFolder::SentFolder(const QString &spoolPath)
    : spool(QFile::encodeName(spoolPath))
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
    records.close();
    path = spool + '/' + prefix + "XXXXXX";
    if (!::mkdtemp(path.data()))
        return false;
    folder = Descriptor(::open(path.constData(), folderFlags));
    const int reason = errno;
    const bool isTaken =
        folder.isOpen() && ::flock(folder.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (folder.isOpen() && !isTaken && !isGone()) {
        std::ignore = records.create(folder.get()); // without a journal every record becomes a file
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
    ::unlinkat(folder.get(), Journal::fileName, 0);
    ::rmdir(path.constData());
    records.close();
    folder = Descriptor();
}

// --- files ---

SentFolder::Take SentFolder::take(
    const QString &name, const SpoolFile::Mark &mark, QByteArrayView content)
{
    const QByteArray file = QFile::encodeName(name);
    const QByteArray listed = spool + '/' + file;
    if (open() && ::renameat(AT_FDCWD, listed.constData(), folder.get(), file.constData()) == 0) {
        kept.insert(name);
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
    if (!S_ISREG(info.st_mode)) // a symbolic link
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
    kept.remove(name);
}

bool SentFolder::giveBack(const QString &name)
{
    const QByteArray file = QFile::encodeName(name);
    if (!GiveBack::file(folder.get(), file.constData(), spool, file))
        return false;
    kept.remove(name);
    return true;
}

bool SentFolder::giveAllBack()
{
    bool isDone = true;
    const QSet<QString> names = kept;
    for (const QString &name : names)
        isDone = giveBack(name) && isDone;
    quint64 done = 0;
    const bool allRecords = records.forEach([&](const Journal::Entry &entry) {
        if (!GiveBack::record(folder.get(), entry, spool))
            return false;
        done = entry.end;
        return true;
    });
    records.free(allRecords ? records.end() : done);
    return isDone && allRecords;
}
