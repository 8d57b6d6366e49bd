#pragma once

#include "Descriptor.h"

#include <QByteArrayView>
#include <QString>

#include <sys/stat.h>

// The hidden names of files that are being written begin with this.
inline constexpr char incomingPrefix[] = ".incoming-";

// A name that means a file of the directory that it is put in, and a visible one: not empty, no "/"
// or zero character, no dot in front, and nothing that file names cannot express, because two such
// names would mean the same file.
[[nodiscard]] bool isPlainName(const QString &name);

inline constexpr qsizetype longestFileName = 255; // bytes that the kernel's file systems take

// Opens a regular file for reading and tells what the system knows of it; -1, with the reason in
// errno, for anything else.
[[nodiscard]] int openRegularFile(const QString &path, struct stat &info);

// Removes what writers that were killed have left hidden in a directory. Files of living writers
// stay, also those of other containers: each holds the kernel's lock on its own.
void removeLeftoversOfTheDead(const QString &directory);

// A file that appears under its name whole or not at all.
//
// It is written under a hidden name in the same directory and renamed. A crash before that leaves
// the hidden file only. That one's name holds the process id and a random number, because another
// process may be writing there at the same time, and in another container it may have the same id;
// each thread has a name of its own, and writes one file of a directory at a time.
//
// Owner:   whoever writes it, for one file.
// Thread:  any one thread.
// Errors:  never throws. Without a commit() that succeeded, nothing has changed under the name.
class WholeFile
{
public:
    // Whether the bytes must be on the disk before they get their name: a power cut then leaves
    // either the old file or the new one. Takes as long as the disk does.
    enum class Flush { No, Yes };

    explicit WholeFile(const QString &path);
    ~WholeFile();
    WholeFile(const WholeFile &) = delete;
    WholeFile &operator=(const WholeFile &) = delete;

    // False if the file could not be created or written to, now or in an earlier call.
    bool write(QByteArrayView bytes);
    // Gives the file these permissions; without it they are what the umask leaves.
    [[nodiscard]] bool setMode(mode_t mode);
    // Gives the file its name, in the place of one that has it. False after any failure.
    [[nodiscard]] bool commit(Flush flush = Flush::No);
    // What has failed, as errno has it; 0 if nothing has.
    [[nodiscard]] int error() const { return failure; }

private:
    // Remembers the reason of a call that failed; the result is whether none has.
    bool check(bool isDone);

    const QByteArray path; // file system encoding, as hidden
    const QByteArray hidden;
    Descriptor file;
    bool isHidden; // there is a hidden file
    int failure = 0;
};
