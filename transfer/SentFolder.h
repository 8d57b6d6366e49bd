#pragma once

#include "Descriptor.h"
#include "Journal.h"
#include "SpoolDirectory.h"

#include <QSet>

// What a process has on its way to the peer: a hidden folder of the spool directory, with the
// journal of records that have no file and with the files that a link has taken.
//
// A listed file is moved here, not copied and removed: its bytes are as safe on the disk as they
// were. The owner holds the kernel's lock on the folder, so that of a process that was killed can
// be told from that of a living one; Leftovers gives its content back.
//
// Owner:   SpoolKeeper.
// Thread:  any one thread.
// Errors:  never throws. A file that cannot be taken stays in the spool.
class SentFolder
{
public:
    static constexpr char prefix[] = ".sent-";

    explicit SentFolder(const QString &spool);

    // Makes the folder unless it is there. False, with the reason in errno, if that fails.
    [[nodiscard]] bool open();
    // Removes the folder if nothing is kept in it.
    void close();

    enum class Take {
        Taken,
        Gone, // somebody else has removed it
        Replaced, // by another file, which stays listed
        NoRoom, // on the disk; it stays listed
        Stuck // it cannot be removed, and stays listed
    };
    // Takes a spool file with that mark and content out of the listing. No file of its name may be
    // kept.
    [[nodiscard]] Take take(
        const QString &name, const SpoolFile::Mark &mark, QByteArrayView content);
    // The peer has it: removes a kept file for good.
    void discard(const QString &name);
    // The peer may not have it: puts a kept file back. False, with the reason in errno, if it
    // cannot go back now.
    bool giveBack(const QString &name);
    // The same for all kept files and all records of the journal.
    [[nodiscard]] bool giveAllBack();
    [[nodiscard]] bool isEmpty() const { return kept.isEmpty() && records.isEmpty(); }
    [[nodiscard]] bool holds(const QString &name) const { return kept.contains(name); }

    [[nodiscard]] Journal &journal() { return records; }
    // Empty before open(); file system encoding.
    [[nodiscard]] QByteArray name() const { return path.mid(spool.size() + 1); }

private:
    [[nodiscard]] bool make();
    [[nodiscard]] bool isGone() const;
    [[nodiscard]] bool isUnchanged(
        const QByteArray &file, const SpoolFile::Mark &mark, QByteArrayView content) const;

    const QByteArray spool; // file system encoding, as path
    QByteArray path;
    Descriptor folder; // locked
    QSet<QString> kept;
    Journal records;
};
