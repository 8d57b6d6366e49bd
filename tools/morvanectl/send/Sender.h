#pragma once

#include "Progress.h"
#include "SendOptions.h"
#include "TConnector.h"

#include <QElapsedTimer>
#include <QList>
#include <QQueue>
#include <QTimer>

#include <optional>

// Sends the files of one run over one connection.
//
// Errors:  prints them and ends the event loop with failureStatus; success ends it with 0.
class Sender : public QObject
{
public:
    explicit Sender(const SendOptions &sendOptions);
    void start();

private:
    struct QueuedRecord
    {
        QString report;
        qint64 endOffset; // in the bytes of the connection
    };

    void tryToConnect();
    void begin();
    void queueMore();
    void noteWritten(qint64 bytes);
    void showProgress();
    void noteStandstill();
    void fail(const QString &what);
    void finish();

    const SendOptions &options;
    QList<SendOptions::Item> itemsToQueue;
    QByteArray inputContent;
    std::optional<Progress> progress;
    TMyLocalSocket socket;
    QTimer retryTimer;
    QTimer connectTimer;
    QTimer standstillTimer;
    QElapsedTimer sinceBytesLeft;
    bool isStandstillReported = false;
    QQueue<QueuedRecord> recordsOnTheirWay;
    qint64 queuedBytes = 0;
    qint64 sentBytes = 0;
    int sentRecords = 0;
    bool finished = false;
};
