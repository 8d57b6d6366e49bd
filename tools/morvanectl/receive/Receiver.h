#pragma once

#include "ReceiveOptions.h"
#include "ReceiverTally.h"
#include "RecordLink.h"
#include "RecordStore.h"

#include <QTcpServer>
#include <QTimer>

#include <memory>
#include <vector>

// The TCP peer: accepts connections, cuts their streams into records, and keeps or shows them.
//
// Errors:  a fault of a peer is reported and ends its connection. A record that cannot be written
//          ends the event loop with failureStatus. Nothing is acknowledged before it is safe on the
//          disk.
class Receiver : public QTcpServer
{
public:
    explicit Receiver(const ReceiveOptions &receiveOptions);
    // Prints an error and returns false if the port or the folder cannot be used.
    [[nodiscard]] bool start();
    // Keeps the records that have arrived completely, unless --count is reached, and prints the
    // summary. Returns the exit status: `status`, or lossStatus if that is 0 and records were lost.
    [[nodiscard]] int finish(int status);

private:
    struct Link
    {
        std::unique_ptr<RecordLink> socket;
        QString peer;
        QTimer silenceTimer;
        qint64 indexNumber = 0;
        qint64 records = 0;
        quint64 recordsAndKeepAlives = 0;
        quint64 acknowledged = 0;
        bool isSilent = false;
        bool hasStoppedReading = false;
    };

    void incomingConnection(qintptr descriptor) override;
    void watchSilence(Link &link) const;
    void noteActivity(Link &link) const;
    void readFrom(Link &link);
    void readRecords(Link &link);
    [[nodiscard]] bool isDueToMisbehave(const Link &link) const;
    void takeRecord(const QByteArray &body, Link &link);
    void showKept(const QList<RecordStore::Record> &records);
    void acknowledge(Link &link);
    void fail(const QString &what, int reason);
    void misbehave(Link &link);
    void dropOversized(Link &link);
    void sayEnd(const Link &link) const;
    void close(Link &link);
    void takeArrived(Link &link);
    void countLost(const QByteArrayList &bodies);
    void sayEvent(const QString &what) const;

    const ReceiveOptions &options;
    RecordStore store;
    ReceiverTally tally;
    std::vector<std::unique_ptr<Link>> links;
    bool finished = false;
};
