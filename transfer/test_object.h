#pragma once

#include "AnswerWatch.h"
#include "SpoolDirectory.h"
#include "TransferCounters.h"

#include <QHostAddress>
#include <QMap>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

class QUdpSocket;
class TFileTransfer;

// Carries a spool directory to the peer over UDP, one file at a time, and receives the peer's files
// into the working directory.
//
// Owner:   the module. It connects the signals and calls start() once. The destructor calls stop().
// Thread:  the object, its socket and its engine live on the thread that constructs it, which also
//          emits all signals. Only run() executes on the new thread: it looks for files and hands
//          them to the engine.
// Errors:  are reported to the log and through LogMessage(), once for each change of state. If the
//          local port is taken, binding is retried every few seconds.
class ScanThread : public QThread
{
    Q_OBJECT
public:
    // localPort and remotePort are UDP ports; remoteHost is a numeric address. timeout is the pause
    // between packets in milliseconds; 0 sends as fast as the path allows.
    ScanThread(QObject *parent, unsigned short localPort, unsigned short remotePort,
        QString remoteHost, unsigned short timeout, QString spoolDir);
    ~ScanThread() override;

    // Ends the scan thread and waits for it, well under a second: the pause between two scans
    // and the compression of a file are interrupted, a hand-over to the engine is completed. A file
    // in transfer stays in the spool. A stopped object cannot be started again.
    void stop();
    // Removes a delivered file at once, so that it is not sent again, and waits up to ten seconds
    // until received files are written. Runs automatically when the application quits.
    void finish();

    // Accepts datagrams from the peer's address only, from any port. Call before start().
    void setOnlyPeer(bool isOnly) { onlyPeer = isOnly; }
    // Limits the inflated size of received files; larger ones are not written. 0, the default,
    // means no limit. Call before start().
    void setMaxReceivedBytes(qint64 bytes);

    // Sets how long a peer that has acknowledged part of a file may stay silent before the file is
    // sent again from the start. Default: five minutes. A file that has already taken longer gets
    // as long as it has taken. Call before start().
    void setPatience(std::chrono::milliseconds patience) { watch.patience = patience; }

    [[nodiscard]] const TransferCounters &counters() const { return transferCounters; }

Q_SIGNALS:
    // message is one line for the log, in UTF-8.
    void LogMessage(QByteArray message);
    // Never emitted; other programs of the family connect to these.
    void Error(QString message);
    void SendBroadcastMessage(QByteArray message);
    void SendMessage(QByteArray uin, QByteArray message);

protected:
    void run() override;

private Q_SLOTS:
    void SendData(QByteArray &packet);
    void UdpDatagrams();
    void on_FileSended();
    void on_FileRefused(QString path, QString reason);
    void on_FileUnreadable(QString path, int error);
    void on_FileForgotten();
    void bindSocket();

private:
    using Mark = SpoolDirectory::Mark;

    using Clock = std::chrono::steady_clock;

    // A file that stays in the spool, but is skipped until its mark changes or the time comes.
    struct PassedOver
    {
        Mark mark;
        Clock::time_point skippedUntil;
    };

    void connectEngine();
    void scan();
    [[nodiscard]] bool waitForTurn();
    [[nodiscard]] bool isPassedOver(const QString &name) const;
    [[nodiscard]] bool isSpoolFree(SpoolLock &lock);
    void handOverFirstFile();
    void setAside(const QString &reason);
    void removeDelivered();
    void release();
    void sendAfresh(const QString &text);

    [[nodiscard]] QString obstacle() const;
    [[nodiscard]] bool canSendToPeer();
    [[nodiscard]] bool acceptsFrom(const QHostAddress &sender);
    void takeDatagram(int size);
    void countSent(const Packet &sent, qint64 bytes);
    void reportFromAnyThread(const QString &line);
    void reportPending();
    void report(const QString &line);
    void reportAboutPeer(const QString &line);

    const quint16 remotePort;
    const QString remoteHost;
    const SpoolDirectory spool;
    TFileTransfer *fileTransfer;

    // The file in transfer. While busy is false these belong to the scan thread, which sets
    // busy last. While busy is true they belong to the object's thread, which clears it last.
    QString currentPath;
    QString currentName;
    Mark currentMark = {}; // taken before the file is read, so a later change is noticed
    QMap<QString, PassedOver> passedOver;
    QTimer removalTimer;

    QUdpSocket *udpSocket;
    std::atomic<bool> busy = false;

    const quint16 localPort;
    QByteArray datagramBuffer;
    QTimer bindTimer;
    AnswerWatch watch;
    TransferCounters transferCounters;
    SentPackets sentPackets;
    const QHostAddress peerAddress;
    bool onlyPeer = false;
    const bool isSpoolWorkingDirectory; // nothing runs then: received files would be sent back
    QString lastObstacle; // empty if nothing prevents sending
    Clock::time_point nextObstacleCheck{};
    Clock::time_point peerLinesUntil{};
    int peerLineCount = 0;
    bool reportedNoPort = false;
    bool reportedShortage = false; // reset when a file is delivered
    bool reportedStranger = false;

    // Used by the scan thread only.
    bool reportedStuckLock = false;
    bool hasFailedForeign = false; // a file with a foreign name could not be moved
    Clock::time_point nextScan;

    std::mutex mutex; // guards the members below
    std::condition_variable stopCondition;
    bool stopRequested = false;
    QStringList pendingLines;
};
