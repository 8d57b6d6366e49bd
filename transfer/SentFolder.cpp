#include "SentFolder.h"

#include "WholeFile.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr char folderPrefix[] = ".sent-";
constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

using Directory = std::unique_ptr<DIR, int (*)(DIR *)>;

void giveFileBack(int folder, const char *name, const QByteArray &spool)
{
    const QByteArray place = spool + '/' + name;
    if (::renameat2(folder, name, AT_FDCWD, place.constData(), RENAME_NOREPLACE) == 0)
        return;
    if (errno == EEXIST) // a newer record has the name, and it stands
        ::unlinkat(folder, name, 0);
    else if (errno == EINVAL
        && ::access(place.constData(), F_OK) != 0) // an old network file system
        ::renameat(folder, name, AT_FDCWD, place.constData());
}

void giveAllBack(int folder, const QByteArray &spool)
{
    const Directory entries(::fdopendir(::dup(folder)), ::closedir);
    while (const dirent *entry = entries ? ::readdir(entries.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            giveFileBack(folder, entry->d_name, spool);
    }
}

} // namespace

SentFolder::~SentFolder()
{
    if (descriptor >= 0)
        ::close(descriptor);
}

void SentFolder::setSpool(const QString &directory)
{
    spool = QFile::encodeName(directory);
}

void SentFolder::recover() const
{
    const Directory entries(::opendir(spool.constData()), ::closedir);
    while (const dirent *entry = entries ? ::readdir(entries.get()) : nullptr) {
        if (std::strncmp(entry->d_name, folderPrefix, std::strlen(folderPrefix)) != 0)
            continue;
        const Descriptor folder(::openat(::dirfd(entries.get()), entry->d_name, folderFlags));
        if (!folder.isOpen() || ::flock(folder.get(), LOCK_EX | LOCK_NB) != 0)
            continue; // its owner lives
        giveAllBack(folder.get(), spool);
        ::unlinkat(::dirfd(entries.get()), entry->d_name, AT_REMOVEDIR);
    }
}

// Another process that is just starting may take the new folder for a dead one's as long as it is
// not locked, and remove it: then the next file makes a new one.
bool SentFolder::open()
{
    if (descriptor >= 0)
        return true;
    path = spool + '/' + folderPrefix + "XXXXXX";
    if (!::mkdtemp(path.data()))
        return false;
    descriptor = ::open(path.constData(), folderFlags);
    if (descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0)
        return true;
    close();
    return false;
}

SentFolder::Take SentFolder::take(const QString &name, quint64 inode)
{
    const QByteArray file = QFile::encodeName(name);
    const QByteArray listed = spool + '/' + file;
    errno = 0;
    for (int attempt = 0; attempt < 2 && open(); ++attempt) {
        if (::renameat(AT_FDCWD, listed.constData(), descriptor, file.constData()) == 0)
            return holds(file, inode) ? Take::Done : Take::Replaced;
        if (errno != ENOENT || ::access(listed.constData(), F_OK) != 0)
            break;
        close(); // the folder has been removed under us
    }
    full = errno == ENOSPC || errno == EDQUOT;
    return ::access(listed.constData(), F_OK) != 0 ? Take::Done : Take::StillListed;
}

// Another writer may have put a newer file in the place of the one that was sent just before it was
// taken: that one has not been sent, and goes back.
bool SentFolder::holds(const QByteArray &file, quint64 inode) const
{
    struct stat info;
    if (::fstatat(descriptor, file.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0
        || !S_ISREG(info.st_mode) || info.st_ino == inode)
        return true;
    giveFileBack(descriptor, file.constData(), spool);
    return false;
}

void SentFolder::discard(const QString &name)
{
    ::unlinkat(descriptor, QFile::encodeName(name).constData(), 0);
}

void SentFolder::giveBack(const QString &name)
{
    giveFileBack(descriptor, QFile::encodeName(name).constData(), spool);
}

void SentFolder::close()
{
    if (descriptor < 0)
        return;
    ::rmdir(path.constData());
    ::close(descriptor);
    descriptor = -1;
}
