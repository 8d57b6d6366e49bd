#pragma once

#include "SpoolDirectory.h"

#include <QByteArray>
#include <QSet>

#include <limits>
#include <memory>
#include <vector>

// Gives back what ended processes have left on its way to the peer, and finds what a power cut may
// have damaged.
//
// A folder whose owner lives is left alone, and so is one of another host, which may live too:
// kernel locks do not always reach that far. A start of the system between its owner's end and now
// means that the latest files may be empty or cut short although their names are there. Those that
// are younger than what the owner knew to be on the disk are set aside as refused.
//
// Owner:   SpoolKeeper.
// Thread:  any one thread. The first call after a power cut looks at every waiting file.
// Errors:  never throws. What cannot be given back stays where it is; everything is reported once.
class Leftovers
{
    Q_DECLARE_TR_FUNCTIONS(Leftovers)
public:
    Leftovers(const QString &spool, MessageSink report);
    ~Leftovers();

    // False if something remains that could go back later.
    [[nodiscard]] bool giveBack();
    // Nanoseconds since the epoch: what an ended owner of the running system knew to be on the
    // disk.
    [[nodiscard]] qint64 syncedUntil() const { return lastSync; }

private:
    struct Folder;
    using Folders = std::vector<std::unique_ptr<Folder>>;

    [[nodiscard]] Folders endedOwners();
    [[nodiscard]] std::unique_ptr<Folder> openIfEnded(const QByteArray &name);
    void giveFilesBack(Folder &folder);
    void setDoubtfulAside(qint64 cut);
    [[nodiscard]] bool giveRecordsBack(Folder &folder);
    void reportOnce(const QByteArray &folder, const QString &text);

    const SpoolDirectory directory;
    const QByteArray spool; // file system encoding
    const MessageSink report;
    qint64 lastSync = std::numeric_limits<qint64>::max();
    QSet<QByteArray> named; // folders that something was said of
};
