#pragma once

#include "MessageSink.h"
#include "SpoolFile.h"
#include "SpoolListing.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>

#include <functional>
#include <optional>

class SpoolLock;

// The directory in which every record waits as one file until it is sent.
//
// SpoolLayout.h tells what else is there. Only visible files are listed.
//
// Thread:  any. Objects hold only the path; copies share it.
// Errors:  if a function fails, the reason is in errno.
class SpoolDirectory
{
    Q_DECLARE_TR_FUNCTIONS(SpoolDirectory)
public:
    enum class WriteResult { Written, NoLock, NoFile };
    enum class SetAside { Moved, Gone, Failed };

    using Mark = SpoolFile::Mark;

    explicit SpoolDirectory(QString path);

    // Writes a file under the lock, whole or not at all, and replaces one of the same name. Returns
    // NoFile unless isPlainName(name).
    [[nodiscard]] WriteResult write(
        const QString &name, const QByteArray &content, const MessageSink &report) const;

    // Lists all waiting files in the order of sending: by name, ignoring letter case. For long
    // backlogs use SpoolScan, which lists them in parts.
    [[nodiscard]] SpoolListing list() const;

    struct First
    {
        QString name; // empty if no file is left, or if the directory cannot be read
        bool hasForeign = false; // setForeignNamesAside() has something to do
    };
    // Returns the first file in the order of sending that is not skipped. Makes one pass over the
    // directory, without sorting and without a system call or an allocation for each file. Returns
    // no name if the calling thread is interrupted meanwhile, see QThread::requestInterruption().
    [[nodiscard]] First first(const std::function<bool(const QString &)> &isSkipped) const;

    // Returns nullopt if the file is gone.
    [[nodiscard]] std::optional<Mark> mark(const QString &name) const;

    // The result is not open if the file is gone, unreadable, not a regular file or over 4 GiB.
    [[nodiscard]] SpoolFile open(const QString &name) const { return SpoolFile(pathOf(name)); }

    enum class Removal { Removed, Replaced, Failed };
    // Removes the file that has the mark. A newer file under the same name stays.
    [[nodiscard]] Removal remove(const QString &name, const Mark &mark) const;
    // Removes any file of that name. Returns false if it still exists.
    [[nodiscard]] bool remove(const QString &name) const;

    // Moves a file that can never be sent to the folder of refused files, which is created when
    // needed. Never overwrites a file: if the name is taken there, a number is appended.
    [[nodiscard]] SetAside setAside(const QString &name) const;
    // Returns that folder, whether it exists or not.
    [[nodiscard]] SpoolDirectory refused() const;
    // Called on that folder: returns the name that a file of it had, without an appended number.
    [[nodiscard]] QString nameBeforeRefusal(const QString &name) const;

    // Sets aside the files with foreign names, see isForeignName(), which list() and first() leave
    // out, and reports each. Returns false if a file cannot be moved, and reports it if asked to.
    [[nodiscard]] bool setForeignNamesAside(const MessageSink &report, bool reportFailures) const;

    // Removes unfinished files of killed writers. Does nothing and returns false while a writer may
    // be at work. lock must not be acquired; the caller keeps it for the next attempt.
    [[nodiscard]] bool removeLeftovers(SpoolLock &lock) const;

    [[nodiscard]] const QString &path() const { return directory; }
    [[nodiscard]] QString pathOf(const QString &name) const { return directory + u'/' + name; }
    // The same in file system encoding.
    [[nodiscard]] const QByteArray &encodedPath() const { return encoded; }
    [[nodiscard]] QByteArray encodedPathOf(const QByteArray &name) const
    {
        return encoded + '/' + name;
    }

private:
    [[nodiscard]] bool writeWhole(const QString &name, const QByteArray &content) const;
    [[nodiscard]] SetAside setAside(const QByteArray &name) const;

    QString directory;
    QByteArray encoded;
};
