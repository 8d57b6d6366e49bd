#pragma once

#include "Flusher.h"
#include "Leftovers.h"
#include "SentFolder.h"

#include <QObject>
#include <QStringList>
#include <QTimer>

#include <thread>

// What a process does for the safety of a spool directory, whatever the transport: gives back what
// killed processes have left, writes files, and brings them to the disk.
//
// Owner:   the module.
// Thread:  main thread. Waiting for the spool's lock blocks it. What reads the whole directory runs
//          on a thread of its own.
// Errors:  never throws. What fails is tried again every few seconds, and reported once.
class SpoolKeeper : public QObject
{
    Q_OBJECT
public:
    SpoolKeeper(const QString &spool, MessageSink report);
    ~SpoolKeeper() override;

    // Begins to give back what killed processes have left. Nothing may be sent before ready() is
    // emitted; files may be written.
    void start();
    [[nodiscard]] bool isReady() const { return hasStarted; }
    // Before the process ends: leaves nothing behind that the next start would not need.
    void stop();

    [[nodiscard]] SpoolDirectory::WriteResult write(const QString &name, const QByteArray &content);
    // Another process may have put files into the spool: they are brought to the disk as well.
    void lookForFiles();

    // Gives back all that is on its way in sent(). False if some of it cannot go back yet: it will
    // be tried again, and gaveBack() is emitted then.
    bool giveBack();
    [[nodiscard]] SentFolder &sent() { return folder; }
    [[nodiscard]] Flusher &flusher() { return disk; }
    [[nodiscard]] const SpoolDirectory &directory() const { return spool; }

Q_SIGNALS:
    // What killed processes have left lies in the spool, as far as possible.
    void ready();
    // Records that could not go back into the spool lie there now.
    void gaveBack();

private:
    void tryAgain();
    void beginRound();
    void round(const QByteArray &own, int journal);
    Q_INVOKABLE void endRound();
    void waitForRound();
    [[nodiscard]] bool holdsFiles() const;

    const SpoolDirectory spool;
    const MessageSink report;
    SentFolder folder;
    Flusher disk;
    QTimer retry;
    bool hasStarted = false, hasStranded = false;
    qint64 lastChange = 0; // of the directory, nanoseconds since the epoch

    // The other thread has these while it is joinable.
    std::thread worker;
    QStringList remarks;
    Leftovers leftovers;
    SpoolLock lock; // for all attempts to remove left files: it must be seen unchanged for a while
    qint64 startTime = 0; // nanoseconds since the epoch
    bool hasLeftovers = false, hasLeftFiles = false;
};
