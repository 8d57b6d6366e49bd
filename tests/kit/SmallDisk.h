#pragma once

#include "Descriptor.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>

#include <csignal>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

using namespace Qt::StringLiterals;

inline bool shell(const QString &command)
{
    return QProcess::execute(u"sh"_s, {u"-c"_s, command + u" 2>/dev/null"_s}) == 0;
}

// A small disk of its own under a folder, as long as the object lives. Its image lies in memory if
// possible: there a flush does not wait for what others write.
class SmallDisk
{
public:
    explicit SmallDisk(const QString &folder)
        : path(folder)
        , image((QDir(u"/dev/shm"_s).exists() ? u"/dev/shm/"_s : folder)
              + u"morvane-%1.disk"_s.arg(QCoreApplication::applicationPid()))
    {
    }
    ~SmallDisk()
    {
        shell(u"umount -l "_s + path);
        QFile::remove(image);
    }
    // The size, then options of mkfs.ext4.
    [[nodiscard]] bool make(const QString &size, const QString &options = {}) const
    {
        return shell(u"truncate -s %1 %2 && mkfs.ext4 -q -F %3 %2"_s.arg(size, image, options))
            && mount();
    }
    [[nodiscard]] bool mount() const { return shell(u"mount -o loop %1 %2"_s.arg(image, path)); }

    // What is not on the disk yet never will be, as after a power cut.
    [[nodiscard]] bool cutPower() const
    {
        constexpr auto shutDown = _IOR('X', 125, quint32); // of the file system
        quint32 withoutLog = 2;
        const Descriptor folder(::open(qPrintable(path), O_RDONLY));
        return ::ioctl(folder.get(), shutDown, &withoutLog) == 0;
    }
    [[nodiscard]] bool remount() const { return shell(u"umount "_s + path) && mount(); }

private:
    const QString path;
    const QString image;
};

// Lets no file of this process grow beyond a size, as on a full disk, as long as the object lives.
struct FileLimit
{
    explicit FileLimit(rlim_t bytes)
    {
        ::signal(SIGXFSZ, SIG_IGN); // an error code instead
        set(bytes);
    }
    ~FileLimit() { set(RLIM_INFINITY); }
    static void set(rlim_t bytes) // beyond it, the system sends SIGXFSZ
    {
        const rlimit limit = {bytes, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
};
