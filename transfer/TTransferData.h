#pragma once

#include "HeldCount.h"
#include "PacedSender.h"
#include "Packet.h"
#include "TickTimer.h"

#include <QList>
#include <QMap>
#include <QObject>

#include <deque>
#include <memory>
#include <mutex>

class ReceivedFiles;

// One packet of a file in the engine's tables.
struct TTransferData
{
    // An outgoing packet's payload, or an incoming packet's record, which has one byte more.
    char data[Packet::maxRecord] = {};
    qint8 sendCount = 0; // wraps
    int length = 0; // bytes
};

// Sends one file at a time to the peer and receives the peer's files.
//
// A file is compressed and cut into numbered packets. At a fixed pace each tick sends one data
// packet or one status request; without one, PacedSender decides. The peer's engine answers a
// request with those of the recently sent packets that it holds. Acknowledged packets leave the
// table; when the table is empty the file has arrived. There is no limit on repetitions.
//
// Owner:   sends every SendData() packet to the peer as one datagram, and passes every datagram
//          that arrives to ReceiveData().
// Thread:  the one that constructed it. All signals are emitted there, from within a tick, a
//          datagram or the completion of a file. OpenFile() may be called from any thread.
// Errors:  a file ends with exactly one of FileSended(), FileForgotten(), FileRefused() and
//          FileUnreadable(), unless Stop() or another OpenFile() comes first. Malformed datagrams
//          are dropped silently.
class TFileTransfer : public QObject
{
    Q_OBJECT
public:
    // interval is the time between ticks in milliseconds while a file is being sent. If it is 0,
    // PacedSender decides when the next tick comes and what it sends. quietTicks is the number of
    // ticks to wait after a packet of the peer before sending the next one.
    TFileTransfer(int interval, int quietTicks, QObject *parent);
    ~TFileTransfer() override;

    // Starts to send a file and abandons a transfer in progress. The first packet leaves with the
    // next tick. Reads and compresses the file on the caller's thread; gives up without a signal if
    // that thread's requestInterruption() is called meanwhile. The transfer itself begins on the
    // engine's thread: at once if that is the caller's, otherwise through a queued call.
    void OpenFile(QString path);
    // Abandons sending and receiving, without a signal.
    void Stop();
    // Abandons sending only, without a signal.
    void StopSending();
    // Sends the first 248 bytes of text with a tag of 5 bytes. The peer's engine ignores it.
    void SendInfo(char *tag, QString text);
    // Sets the prefix for the names of received files; a directory needs a trailing "/".
    void SendPath(QString path);
    // Returns the writer of received files. Configure it before the first one arrives.
    [[nodiscard]] ReceivedFiles &receivedFiles() { return *received; }
    // Processes one datagram of size bytes. Returns false if it has no packet marker.
    bool ReceiveData(char *datagram, int size);
    // Performs one tick.
    void timerEvent(QTimerEvent *event) override;

Q_SIGNALS:
    // Carries one packet, which the slot must send before it returns.
    void SendData(QByteArray &packet);
    // A file has been written, under the name that the peer gave.
    void FileReceived(QString name);
    // The peer holds the whole file.
    void FileSended();
    // The file can never be sent; none of it was.
    void FileRefused(QString path, QString reason);
    // The file cannot be read for now; none of it was sent. error is an errno value.
    void FileUnreadable(QString path, int error);
    // The peer has acknowledged every packet, but does not hold them all: it has lost some since,
    // or it acknowledged packets of an older file.
    void FileForgotten();
    // Reports a problem with a received file to the operator.
    void Trouble(QString line);

private:
    // A file on its way from the thread that prepared it to the engine's. At most one of the last
    // three members is set; then there is nothing to send.
    struct Outgoing
    {
        QString path;
        QMap<int, TTransferData> packets;
        QString refusalReason;
        int readError = 0; // errno
        bool isAbandoned = false;
    };
    [[nodiscard]] static Outgoing prepare(const QString &path);
    static void compress(Outgoing &outgoing);
    void begin(Outgoing outgoing);
    void takeHandedOver();

    [[nodiscard]] bool hasFixedPace() const { return tickInterval.count() > 0; }
    [[nodiscard]] Packet::Stamp nextStamp();
    void runTicks(int count);
    void emitTwice(QByteArray packet);
    void sendStatusRequest();
    void sendNextRecord();
    void emitRecord(int number, const TTransferData &record);
    void sendPaced();
    void wakeAt(PacedSender::Time time, PacedSender::Time now);
    [[nodiscard]] QMap<int, TTransferData>::iterator chooseRecord();
    void receiveAcknowledgement(const Packet &packet);
    void endSending();
    void tellPacedSender(const Packet &acknowledgement);

    void receiveRecord(const Packet &packet);
    [[nodiscard]] bool beginReceiving(const Packet &packet);
    void updateForgotten(bool isLateCopy);
    void dropFromForgotten(int number, const TTransferData &record);
    void answerStatusRequest(const Packet &packet);
    void completeFile();
    void rescueFile();
    void write(const QMap<int, TTransferData> &packets, bool onlyIfClean);

    // By packet number: what has arrived of the incoming file, and what the peer has not yet
    // acknowledged of the outgoing one.
    QMap<int, TTransferData> rxMap;
    QMap<int, TTransferData> txMap;
    QString receivePath;
    char rxId = 0;
    char txId = 40;
    int rxCount = 0; // data packets that packet 0 of the incoming file announced
    bool sending = false;
    bool infoAcked = false; // the peer holds packet 0 of the outgoing file
    bool receiving = false;
    int tickCount = 0; // since the last status request
    unsigned int idleTicks; // since a data packet or a status request arrived
    unsigned int quietTicks;
    quint16 station = 0;
    quint8 sequence = 0;
    QList<unsigned short> sentList; // numbers of the last packets sent, oldest first
    int lastSentNumber = 0;

    HeldCount peerHeld;

    // Packets that had arrived when packet 0 of the same file came once more, and that have not
    // come again since. They are neither counted nor acknowledged, but rescueFile() writes the file
    // with their help.
    QMap<int, TTransferData> forgotten;
    bool isRescued = false;
    const std::unique_ptr<ReceivedFiles> received;

    const std::chrono::milliseconds tickInterval; // 0 for no fixed pace
    TickTimer ticker; // runs while sending
    PacedSender paced; // without a fixed pace only
    PacedSender::Time nextWake;

    std::mutex handOverMutex; // guards handedOver, the only member that other threads use
    std::deque<Outgoing> handedOver;
};
