#pragma once

#include "Descriptor.h"
#include "Journal.h"
#include "SpoolDirectory.h"

#include <QSet>
#include <QStringList>

// Holds what a process has sent but the peer has not yet acknowledged: a hidden folder of the spool
// directory, with the journal of records that have no file and the files that a link has taken.
//
// A spool file is moved here rather than copied, so its bytes stay as safe on the disk as they
// were. The owner holds the kernel's lock on the folder, which shows that its process still runs.
// After a kill, Leftovers gives the content back.
//
// Errors:  a file that cannot be taken stays in the spool.
class SentFolder
{
public:
    // Returns the names of such folders in a spool, sorted.
    [[nodiscard]] static QStringList namesIn(const SpoolDirectory &spool);
    // Returns whether the owner of an open folder still runs. Says yes for a while after a change
    // in the folder, because asking the kernel then could keep a new owner from getting its lock.
    [[nodiscard]] static bool hasOwner(int folder);

    explicit SentFolder(const SpoolDirectory &spool);

    // Creates the folder unless it exists. Returns false, with the reason in errno, on failure.
    [[nodiscard]] bool open();
    // Removes the folder if it is empty.
    void close();

    enum class Take {
        Taken,
        Gone, // somebody else has removed the file
        Replaced, // another file has taken the name
        NoRoom, // the disk is full
        Stuck // the file cannot be moved
    };
    // Moves a spool file here if it still has the mark and the content. Otherwise a file of that
    // name stays listed, unless it is Gone. No file of that name may be held already.
    [[nodiscard]] Take take(
        const QString &name, const SpoolFile::Mark &mark, QByteArrayView content);
    // Deletes a held file, because the peer has stored it.
    void discard(const QString &name);
    // Moves a held file back into the spool, because the peer may not have it. Returns false, with
    // the reason in errno, if that fails for now.
    bool giveBack(const QString &name);
    // Gives back all held files and all records of the journal. Returns false, with a reason in
    // errno, if some remain.
    [[nodiscard]] bool giveAllBack();
    [[nodiscard]] bool isEmpty() const { return heldFiles.isEmpty() && ownJournal.isEmpty(); }
    [[nodiscard]] bool holds(const QString &name) const { return heldFiles.contains(name); }

    [[nodiscard]] Journal &journal() { return ownJournal; }
    // Returns the folder's name in file system encoding; empty before open().
    [[nodiscard]] QByteArray name() const { return path.mid(spool.encodedPath().size() + 1); }

private:
    [[nodiscard]] bool make();
    [[nodiscard]] bool isGone() const;
    [[nodiscard]] bool isUnchanged(
        const QByteArray &file, const SpoolFile::Mark &mark, QByteArrayView content) const;

    const SpoolDirectory spool;
    QByteArray path; // file system encoding
    Descriptor folder; // holds the kernel's lock
    QSet<QString> heldFiles;
    Journal ownJournal;
};
