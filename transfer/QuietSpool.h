#pragma once

#include <QByteArray>
#include <QSet>

#include <sys/stat.h>

class SpoolDirectory;

// Tells whether a spool directory is quiet: it is writable, no file waits in it and nobody holds
// its lock. Then a record may go to the peer without a file.
//
// The directory is read again only if its modification times have changed since it was found quiet.
//
// Errors:  a directory that cannot be read is not quiet.
class QuietSpool
{
public:
    explicit QuietSpool(const SpoolDirectory &spool);

    // Returns whether the spool is quiet now. Costs two system calls as long as nothing changes.
    [[nodiscard]] bool isQuiet();
    // Returns whether a file of that name could be created: the name is not too long and not that
    // of a folder, as far as the last isQuiet() has seen.
    [[nodiscard]] bool canHold(const QByteArray &name) const;

private:
    [[nodiscard]] bool holdsNoFile();

    const QByteArray path; // file system encoding
    // The directory when it was found quiet. If it was settled, any change since shows in its
    // times.
    struct stat quietState = {};
    bool isSettled = false;
    QSet<QByteArray> namesOfOthers; // folders and the like
};
