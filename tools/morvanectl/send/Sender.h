#pragma once

#include "Progress.h"
#include "TConnector.h"

#include <QElapsedTimer>
#include <QList>
#include <QQueue>
#include <QTimer>

#include <optional>

struct SendOptions
{
    // A file and the name of its record.
    struct Item
    {
        QString file;
        QString name;
    };
    QString module;
    QList<Item> items;
    QByteArray kind;
    uchar dataVersion = 1;
    int waitSeconds = 0; // for the module to listen
    int timeoutSeconds = 0; // for the module to take something; 0: without limit
    QByteArray ownName; // on the bus
    bool quiet = false;
};

inline constexpr qint64 longestBody =
    50'000'000; // bytes; a longer frame makes the module cut us off
inline const QString standardInput = QStringLiteral("-"); // instead of a file

// Sends the files of one run over one connection.
//
// Errors:  prints them and ends the event loop with failureStatus; success ends it with 0.
class Sender : public QObject
{
public:
    explicit Sender(const SendOptions &sendOptions);
    void start();

private:
    struct OnItsWay
    {
        QString line; // to say when it has left
        qint64 endOffset; // its last byte, counted from the first one of the connection
    };

    void tryToConnect();
    void begin();
    void fill();
    void noteWritten(qint64 bytes);
    void showProgress();
    void noteStandstill();
    void fail(const QString &what);
    void finish();

    const SendOptions &options;
    QList<SendOptions::Item> items; // not put into a frame yet
    QByteArray input; // all of standard input, if that is what is sent
    std::optional<Progress> progress;
    TMyLocalSocket socket;
    QTimer retryTimer;
    QTimer connectTimer;
    QTimer standstillTimer;
    QElapsedTimer sinceMovement; // of a byte that the module has taken
    bool saidStandstill = false;
    QQueue<OnItsWay> onItsWay;
    qint64 queuedBytes = 0; // of the connection
    qint64 sentBytes = 0;
    int sentRecords = 0;
    bool finished = false;
};
