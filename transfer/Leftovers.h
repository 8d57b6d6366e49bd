#pragma once

#include "SpoolDirectory.h"

#include <QByteArray>
#include <QSet>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

// Moves what ended processes had on its way to the peer back into the spool, and finds files that a
// power cut may have damaged.
//
// Leaves a folder alone if its owner lives, or if it belongs to another host, whose kernel locks
// may be invisible here. If the system was restarted since the owner ended, the newest files may be
// empty or cut short. Files that are newer than the time up to which the owner knew the disk to be
// synced are set aside as refused.
//
// Thread:  any one thread at a time. requestStop() may be called on another one. giveBack() may
//          take long: it reads the whole directory, and after a power cut checks every waiting
//          file.
// Errors:  what cannot be given back stays where it is; each problem is reported once.
class Leftovers
{
    Q_DECLARE_TR_FUNCTIONS(Leftovers)
public:
    using NoteSynced = std::function<void(qint64 time)>;

    Leftovers(const SpoolDirectory &spool, MessageSink report);
    ~Leftovers();

    // Gives back the content of every folder but own. Returns false if something remains that could
    // go back later. Before it removes a folder, calls note with the time up to which the owners
    // that ended since the last boot knew the disk to be synced (nanoseconds since the epoch).
    [[nodiscard]] bool giveBack(const QByteArray &own = {}, const NoteSynced &note = {});
    // Makes a running giveBack() return soon. The rest is left for a later call.
    void requestStop() { stopRequested = true; }

private:
    struct Folder;
    using Folders = std::vector<std::unique_ptr<Folder>>;

    [[nodiscard]] Folders endedOwners(const QByteArray &own);
    [[nodiscard]] std::unique_ptr<Folder> openIfEnded(const QByteArray &name);
    void giveFilesBack(Folder &folder);
    void setDoubtfulAside(qint64 since);
    [[nodiscard]] bool giveRecordsBack(Folder &folder);
    void reportOnce(const QByteArray &folder, const QString &text);

    const SpoolDirectory spool;
    const MessageSink report;
    std::atomic<bool> stopRequested = false;
    QSet<QByteArray> reportedFolders;
};
