#pragma once

#include "Descriptor.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <sys/stat.h>

// Removes the hidden files that killed writers have left in a directory. Files of living writers
// stay, also those of other containers, because each writer holds the kernel's lock on its file.
void removeLeftoversOfTheDead(const QString &directory);

// A file that appears under its name whole or not at all.
//
// The file is written under a hidden name in the same directory and then renamed. A crash before
// that leaves only the hidden file. The hidden name contains the process id and a random number,
// because other processes may write there too, and in another container one may have the same id.
// Each thread has its own hidden name and may write only one file of a directory at a time.
//
// Errors:  each call returns false if it or an earlier one failed, with the first reason in errno.
//          Until commit() has succeeded, nothing has changed under the name.
class WholeFile
{
public:
    // Yes flushes the bytes to the disk before the file is renamed, which waits for the disk. A
    // power cut then leaves either the old file or the new one.
    enum class Flush { No, Yes };

    explicit WholeFile(const QString &path);
    ~WholeFile();
    WholeFile(const WholeFile &) = delete;
    WholeFile &operator=(const WholeFile &) = delete;

    // Appends bytes.
    bool write(QByteArrayView bytes);
    // Sets the permissions. By default they are what the umask leaves.
    [[nodiscard]] bool setMode(mode_t mode);
    // Renames the file and replaces an existing one.
    [[nodiscard]] bool commit(Flush flush = Flush::No);

private:
    // Stores errno of the first failed call. Returns true if no call has failed so far.
    bool check(bool isDone);

    const QByteArray path; // file system encoding, as hidden
    const QByteArray hidden;
    Descriptor file;
    bool isHidden; // the hidden file exists
    int failure = 0; // errno
};
