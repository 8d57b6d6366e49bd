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
    char data[Packet::maxRecord] = {}; // to send: the payload; received: one byte more, see Packet
    qint8 sendCount = 0; // wraps
    int length = 0; // valid bytes in data
};

// Sends one file at a time to the peer and receives the peer's files.
//
// A file is compressed and cut into numbered packets. A tick sends one of them, or a status request
// that makes the peer's engine acknowledge which of the packets sent lately it holds. Acknowledged
// packets leave the table; when it is empty the file has arrived. There is no limit on repetitions.
//
// Owner:   whoever writes every SendData() packet as one datagram to the peer and hands every
//          datagram that arrives to ReceiveData().
// Thread:  the one that constructed it; all signals are emitted there, as direct calls from within
//          a tick, a datagram or the commit of a file. OpenFile() may come from any thread.
// Errors:  never throws. A file ends in exactly one of FileSended(), FileForgotten(), FileRefused()
//          and FileUnreadable(), unless Stop() or another OpenFile() comes first. Datagrams that
//          make no sense are dropped silently.
class TFileTransfer : public QObject
{
    Q_OBJECT
public:
    // Milliseconds from tick to tick while a file is being sent; 0 for no fixed pace: a tick sends
    // what PacedSender says, and comes when that asks for it. Ticks that pass after peer traffic
    // before the next packet.
    TFileTransfer(int interval, int quietTicks, QObject *parent);
    ~TFileTransfer() override;

    // Starts to send a file; the first packet leaves with the next tick. Reading and compressing
    // happen here, on the caller's thread, and end early without a signal once that thread is asked
    // to end (QThread::requestInterruption()). The engine itself changes on its own thread: at once
    // if that is the caller's, else by a posted call. A transfer in progress is abandoned.
    void OpenFile(QString path);
    // Ends sending and receiving where they are, without a signal.
    void Stop();
    // Ends sending only, in the same way.
    void StopSending();
    // Sends a text, at most 248 bytes of it, with a tag of 5 bytes. The peer's engine ignores it.
    void SendInfo(char *tag, QString text);
    // What is put in front of the names of received files; a directory needs its "/" at the end.
    void SendPath(QString path);
    // Where received files go; to be set up before the first one comes.
    [[nodiscard]] ReceivedFiles &receivedFiles() { return *received; }
    // Takes one datagram of size bytes. False if it bears no marker of a packet.
    bool ReceiveData(char *datagram, int size);
    // One tick.
    void timerEvent(QTimerEvent *event) override;

Q_SIGNALS:
    // One packet, to be written before the slot returns.
    void SendData(QByteArray &packet);
    // A file has been written, under the name that the peer gave.
    void FileReceived(QString name);
    // The peer holds the whole file.
    void FileSended();
    // A file can never be sent; nothing of it has been.
    void FileRefused(QString path, QString reason);
    // A file cannot be read for now, with the reason as errno has it; nothing of it has been sent.
    void FileUnreadable(QString path, int error);
    // The peer has acknowledged every packet, but does not hold them all: it has lost some since,
    // or they were those of an older file.
    void FileForgotten();
    // What an operator should hear of a received file.
    void Trouble(QString line);

private:
    // A file on its way from the thread that prepared it to the engine's.
    struct Outgoing
    {
        QString path;
        QMap<int, TTransferData> packets;
        QString refusal; // why it can never be sent; empty if it can
        int error = 0; // why it cannot be read for now
        bool isAbandoned = false; // the preparing thread is asked to end
    };
    [[nodiscard]] static Outgoing prepare(const QString &path);
    static void compress(Outgoing &outgoing);
    void begin(Outgoing outgoing);
    Q_INVOKABLE void takeHandedOver();

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
    void keepForgotten(bool isLateCopy);
    void compareWithForgotten(int number, const TTransferData &record);
    void answerStatusRequest(const Packet &packet);
    void completeFile();
    void rescueFile();
    void write(const QMap<int, TTransferData> &packets, bool onlyIfClean);

    QMap<int, TTransferData> rxMap; // the incoming file, by packet number
    QMap<int, TTransferData> txMap; // what the peer has not acknowledged yet, by packet number
    QString receivePath;
    char rxId = 0;
    char txId = 40;
    int rxCount = 0; // data packets announced for the incoming file
    bool sending = false;
    bool infoAcked = false; // the peer holds packet 0 of the outgoing file
    bool receiving = false;
    int tickCount = 0; // since the last status request
    unsigned int idleTicks; // since a data packet or a status request arrived
    unsigned int quietTicks;
    quint16 station = 0;
    quint8 sequence = 0;
    QList<unsigned short> sentList; // packet numbers sent last, oldest first
    int lastSent = 0; // packet number, see chooseRecord()

    HeldCount peerHeld; // of the outgoing file

    // What was held of the incoming file when its packet 0 came once more, and has not come again.
    // It is neither counted nor acknowledged.
    QMap<int, TTransferData> forgotten;
    bool isRescued = false; // the file has been written with what was forgotten
    const std::unique_ptr<ReceivedFiles> received;

    const std::chrono::milliseconds tickInterval; // 0 for no fixed pace
    TickTimer ticker; // runs while sending
    PacedSender paced; // where there is no fixed pace
    PacedSender::Time nextWake;

    std::mutex handOverMutex; // guards handedOver, the one thing that other threads touch
    std::deque<Outgoing> handedOver;
};
