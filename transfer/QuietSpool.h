#pragma once

#include <QByteArray>
#include <QSet>

#include <sys/stat.h>

// Tells whether a spool directory is quiet: it is writable, no file waits in it and nobody holds
// its lock. Then a record may go to the peer without a file.
//
// The directory is read again only if its modification times have changed since it was found quiet.
//
// Errors:  a directory that cannot be read is not quiet.
class QuietSpool
{
public:
    explicit QuietSpool(const QString &directory);

    // Returns whether the spool is quiet now. Costs two system calls as long as nothing changes.
    [[nodiscard]] bool look();
    // Returns whether a file of that name could be created: the name is not too long and not that
    // of a folder, as far as the last isQuiet() has seen.
    [[nodiscard]] bool canHold(const QByteArray &name) const;

private:
    [[nodiscard]] bool read();

    const QByteArray path; // file system encoding
    struct stat quietAs = {}; // the directory as it was when it was found quiet
    bool isSettled = false; // a change since then would show in its times
    QSet<QByteArray> otherNames; // of folders and the like
};
