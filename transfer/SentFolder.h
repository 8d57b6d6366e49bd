#pragma once

#include <QByteArray>
#include <QString>

// Keeps the files whose records a link has taken until the peer has acknowledged them: out of the
// spool's listing, but still on disk.
//
// They lie in a hidden folder of the spool directory that is there only while it is needed. Its
// owner holds the kernel's lock on it, so the folder of a process that was killed can be told from
// that of a living one.
//
// Owner:   whoever sends from the spool over a link that acknowledges later.
// Thread:  any one thread.
// Errors:  never throws. A file that cannot be taken stays in the spool.
class SentFolder
{
public:
    SentFolder() = default;
    ~SentFolder();
    SentFolder(const SentFolder &) = delete;
    SentFolder &operator=(const SentFolder &) = delete;

    // To be set before anything else, and while nothing is kept.
    void setSpool(const QString &directory);

    // Gives the files that ended processes have left their names back.
    void recover() const;

    enum class Take {
        Done,
        StillListed,
        Replaced // it has made way for a newer file of its name, which is still listed
    };
    // Takes the spool file with that inode out of the listing, replacing a kept one of its name.
    [[nodiscard]] Take take(const QString &name, quint64 inode);
    // Whether the last file that could not be taken found no room on the disk.
    [[nodiscard]] bool isFull() const { return full; }
    // The peer has it: removes a kept file for good.
    void discard(const QString &name);
    // The peer may not have it: back into the spool, unless a newer file has the name.
    void giveBack(const QString &name);
    // Nothing is kept any more: removes the folder.
    void close();

private:
    [[nodiscard]] bool open();
    [[nodiscard]] bool holds(const QByteArray &file, quint64 inode) const;

    QByteArray spool; // file system encoding, as path
    QByteArray path;
    bool full = false;
    int descriptor = -1; // of the folder, locked; -1 while there is none
};
