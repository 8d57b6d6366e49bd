#pragma once

#include <QByteArray>
#include <QSet>

#include <sys/stat.h>

// Tells whether a spool directory is quiet: it can be written to, no file waits in it and nobody
// holds its lock. Then a record may go to the peer without a file.
//
// A directory whose times of change have not moved since it was found quiet is not read again.
//
// Owner:   SpoolSender.
// Thread:  any one thread.
// Errors:  never throws. A directory that cannot be read is not quiet.
class QuietSpool
{
public:
    explicit QuietSpool(const QString &directory);

    // One look: two system calls as long as nothing changes.
    [[nodiscard]] bool look();
    // After look(): whether a file of that name could be made. A folder may have it, and it may be
    // too long.
    [[nodiscard]] bool canHold(const QByteArray &name) const;

private:
    [[nodiscard]] bool read();

    const QByteArray path; // file system encoding
    struct stat quietAs = {}; // the directory as it was when it was found quiet
    bool isSettled = false; // a change since then would show in its times
    QSet<QByteArray> otherNames; // of folders and the like
};
