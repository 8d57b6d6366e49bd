#pragma once

#include "SpoolDirectory.h"
#include "TransferCounters.h"

#include <QMap>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

class QUdpSocket;
class TFileTransfer;
struct Packet;

// Tells a peer that will never acknowledge a file any more from one that is slow or out of reach:
// it was restarted in mid-transfer and knows neither the file's id nor what it held of it.
class AnswerWatch
{
public:
    using Clock = std::chrono::steady_clock;

    // Time and datagrams that must pass without an answer; the time is also at least as long as the
    // file took until the last one, so that an outage costs a long transfer no more than it has
    // lasted. Every request goes out twice; over a
    // link that loses half of the datagrams each way, 60 in a row stay unanswered about once in
    // 10^24.
    std::chrono::milliseconds patience = std::chrono::minutes(5);
    static constexpr int maxUnanswered = 120;

    // For every request sent. True once when the peer has acknowledged something of this file, but
    // nothing for too long.
    [[nodiscard]] bool isInVain(char id, Clock::time_point now = Clock::now());
    void answered(char id, Clock::time_point now = Clock::now());

private:
    char id = -1; // of the last request
    bool isAnnounced = false; // something of this file was acknowledged
    int unanswered = 0;
    Clock::time_point firstAnswer;
    Clock::time_point lastAnswer;
};

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
    // Ports of UDP; the peer's numeric address; milliseconds from packet to packet, 0 means 1.
    ScanThread(QObject *parent, unsigned short localPort, unsigned short remotePort,
        QString remoteHost, unsigned short timeout, QString spoolDir);
    ~ScanThread() override;

    // Ends the scanning and waits for that, well under a second: neither the pause between two
    // scans nor the compression of a file is waited for, and a hand-over is never cut in two. A
    // file in transfer stays in the spool. An object that was stopped cannot be started again.
    void stop();

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
    void bindSocket();

private:
    using Mark = SpoolDirectory::Mark;

    void scan();
    [[nodiscard]] bool goOnAfter(std::chrono::milliseconds pause);
    [[nodiscard]] bool isSpoolFree(SpoolLock &lock);
    void handOverFirstFile();
    void setAside(const QString &reason);
    void takeDatagram(int size);
    void sendAfresh();
    void count(const Packet &sent, qint64 bytes);
    void sayAnywhere(const QString &line);
    Q_INVOKABLE void sayPending();
    void say(const QString &line);

    const quint16 remotePort;
    const QString remoteHost;
    const QString spoolDir;
    TFileTransfer *fileTransfer;

    // The file in transfer. The scanning thread sets busy last, and the other one clears it last:
    // while busy is clear these belong to the scanning thread, while it is set to the other.
    QString currentPath;
    QString currentName;
    Mark currentMark = {}; // before it was read
    QMap<QString, Mark> unmovable; // refused, but still in the spool; passed over until they change

    QUdpSocket *udpSocket;
    std::atomic<bool> busy = false;

    const quint16 localPort;
    QByteArray buffer; // of the datagram that was read last
    QTimer bindTimer;
    AnswerWatch watch;
    TransferCounters done;
    SentPackets sentPackets;
    bool saidNoPort = false;
    bool saidNoAddress = false;
    bool saidStuckLock = false; // the scanning thread's, as the next
    bool hasFailedForeign = false;

    std::mutex mutex; // guards the rest
    std::condition_variable stopCondition;
    bool stopRequested = false;
    QStringList pendingLines;
};
