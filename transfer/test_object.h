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
// Owner:   the module. It connects the signals, calls start() once and stop() before it deletes the
//          object; the destructor stops too.
// Thread:  the object, its socket and its engine live on the thread that constructs it, where all
//          signals are emitted. Only run() is on the thread's own: it looks for files and hands
//          them to the engine.
// Errors:  never throws. Whatever an operator should hear goes to the log and to LogMessage(), once
//          for every change. A port that is taken is asked for again every few seconds.
class ScanThread : public QThread
{
    Q_OBJECT
public:
    // Ports of UDP; the peer's numeric address; milliseconds from packet to packet, 0 for as
    // fast as the path carries.
    ScanThread(QObject *parent, unsigned short localPort, unsigned short remotePort,
        QString remoteHost, unsigned short timeout, QString spoolDir);
    ~ScanThread() override;

    // Ends the scanning and waits for that, well under a second: neither the pause between two
    // scans nor the compression of a file is waited for, and a hand-over is never cut in two. A
    // file in transfer stays in the spool. An object that was stopped cannot be started again.
    void stop();
    // Ends what is not to be done twice: removes a delivered file at once, and waits for received
    // ones to be written, ten seconds at most. Done by itself when the application ends.
    void finish();

    // Takes datagrams from the peer's address only, whatever their port. Before start().
    void setOnlyPeer(bool isOnly) { onlyPeer = isOnly; }
    // Received files with more bytes when inflated are not written; 0, as it is unless set, means
    // no limit. Before start().
    void setMaxReceivedBytes(qint64 bytes);

    // How long a peer that has acknowledged part of a file may be silent before the file is sent
    // afresh, which costs that part. Five minutes unless set, before start(); longer for a file
    // that has already taken longer.
    void setPatience(std::chrono::milliseconds patience) { watch.patience = patience; }

    [[nodiscard]] const TransferCounters &counters() const { return done; }

Q_SIGNALS:
    // One line of the log, UTF-8.
    void LogMessage(QByteArray message);
    // For other programs of the family; not emitted here.
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

    // A file that cannot be sent now, but is still in the spool.
    struct PassedOver
    {
        Mark mark; // until it changes
        Clock::time_point until;
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
    [[nodiscard]] bool mayReach();
    [[nodiscard]] bool isHeeded(const QHostAddress &sender);
    void takeDatagram(int size);
    void count(const Packet &sent, qint64 bytes);
    void reportFromAnyThread(const QString &line);
    Q_INVOKABLE void reportPending();
    void report(const QString &line);
    void reportOfPeer(const QString &line);

    const quint16 remotePort;
    const QString remoteHost;
    const QString spoolDir;
    TFileTransfer *fileTransfer;

    // The file in transfer. The scanning thread sets busy last, and the other one clears it last:
    // while busy is clear these belong to the scanning thread, while it is set to the other.
    QString currentPath;
    QString currentName;
    Mark currentMark = {}; // before it was read
    QMap<QString, PassedOver> passedOver;
    QTimer deliveryTimer; // runs between a delivery and the removal of the file

    QUdpSocket *udpSocket;
    std::atomic<bool> busy = false;

    const quint16 localPort;
    QByteArray buffer; // of the datagram that was read last
    QTimer bindTimer;
    AnswerWatch watch;
    TransferCounters done;
    SentPackets sentPackets;
    const QHostAddress peerAddress; // of remoteHost
    bool onlyPeer = false;
    const bool isSpoolReceived; // the spool is the working directory: nothing is done at all
    QString lastObstacle; // to sending; empty if there is none
    Clock::time_point nextObstacleLook{};
    Clock::time_point peerLinesUntil{};
    int peerLines = 0;
    bool saidNoPort = false;
    bool saidShortage = false; // until a file is delivered
    bool saidStranger = false;
    bool saidStuckLock = false; // the scanning thread's, as the next
    bool hasFailedForeign = false;

    Clock::time_point nextScan; // the scanning thread's
    std::mutex mutex; // guards the rest
    std::condition_variable stopCondition;
    bool stopRequested = false;
    QStringList pendingLines;
};
