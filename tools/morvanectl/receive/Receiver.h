#pragma once

#include "NumberedFiles.h"
#include "RecordBatch.h"
#include "RecordLink.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTimer>

#include <chrono>
#include <memory>
#include <vector>

struct ReceiveOptions
{
    QHostAddress address;
    quint16 port = 0;
    QString directory; // none: records are only shown
    QString nameTemplate; // of the files, with {number}
    bool overwrite = false;
    bool acknowledge = false; // what is safe in the directory
    qint64 count = 0; // of records to leave after; 0: none
    quint32 longestRecord = 0; // bytes
    int kernelBuffer = 0; // bytes of each connection; 0: what the kernel thinks best
    std::chrono::seconds silence{0}; // of a link, to be reported; 0: never
    qint64 closeAfter = 0; // records of a connection, then it is closed; 0: never
    qint64 stopAfter = 0; // records of a connection, then nothing more is read; 0: never
    bool quiet = false;
};

// The TCP peer: takes every connection, cuts its stream into records and keeps or shows them.
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
        quint64 received = 0; // records and keep-alives
        quint64 acknowledged = 0; // records and keep-alives
        bool isSilent = false;
        bool hasStoppedReading = false;
    };
    // A record that is not under its name yet.
    struct PendingRecord
    {
        qint64 bytes;
        QString beginning;
    };
    // Records that a module has forgotten, and nobody has kept.
    struct Loss
    {
        qint64 records = 0;
        qint64 bytes = 0;
    };

    void incomingConnection(qintptr descriptor) override;
    void watchSilence(Link &link) const;
    void noteLife(Link &link) const;
    void take(Link &link);
    [[nodiscard]] bool openFolder();
    void readRecords(Link &link);
    [[nodiscard]] bool isToMisbehave(const Link &link) const;
    void takeBody(const QByteArray &body, Link &link);
    [[nodiscard]] bool keep(const QByteArray &body, const Link &link);
    void noteKept(qint64 number, const PendingRecord &record);
    void acknowledge(Link &link);
    void fail(const QString &what);
    void misbehave(Link &link);
    void dropOversized(Link &link);
    void sayEnd(const Link &link) const;
    void close(Link &link);
    void takeLast(Link &link);
    void lose(const QByteArrayList &bodies);
    void sayEvent(const QString &what) const;

    const ReceiveOptions &options;
    NumberedFiles files; // that nobody acknowledges
    RecordBatch batch; // or that are acknowledged
    QList<PendingRecord> pendingRecords;
    std::vector<std::unique_ptr<Link>> links;
    bool finished = false;
    qint64 connections = 0;
    qint64 records = 0;
    qint64 recordBytes = 0;
    qint64 keepAlives = 0;
    Loss loss;
};
