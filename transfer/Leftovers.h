#pragma once

#include "SpoolDirectory.h"

#include <QByteArray>
#include <QSet>

#include <atomic>
#include <functional>
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
// Thread:  any one thread at a time. A call reads the whole directory, and after a power cut looks
//          at every waiting file; end() may be called on another thread.
// Errors:  never throws. What cannot be given back stays where it is; everything is reported once.
class Leftovers
{
    Q_DECLARE_TR_FUNCTIONS(Leftovers)
public:
    using NoteSynced = std::function<void(qint64 time)>;

    Leftovers(const QString &spool, MessageSink report);
    ~Leftovers();

    // Gives back the content of every folder but our own. Returns false if something remains that
    // could go back later. Calls note, before a folder goes, with the time up to which ended owners
    // of the running system knew the files to be on the disk (nanoseconds since the epoch).
    [[nodiscard]] bool giveBack(const QByteArray &own = {}, const NoteSynced &note = {});
    // Has a call return soon, with most of its work left for another one.
    void end() { shallEnd = true; }

private:
    struct Folder;
    using Folders = std::vector<std::unique_ptr<Folder>>;

    [[nodiscard]] Folders endedOwners(const QByteArray &own);
    [[nodiscard]] std::unique_ptr<Folder> openIfEnded(const QByteArray &name);
    void giveFilesBack(Folder &folder);
    void setDoubtfulAside(qint64 cut);
    [[nodiscard]] bool giveRecordsBack(Folder &folder);
    void reportOnce(const QByteArray &folder, const QString &text);

    const SpoolDirectory directory;
    const QByteArray spool; // file system encoding
    const MessageSink report;
    std::atomic<bool> shallEnd = false;
    QSet<QByteArray> named; // folders that something was said of
};
