#pragma once

#include "NumberedFiles.h"
#include "Record.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTimer>

#include <chrono>

struct ReceiveOptions
{
    QHostAddress address;
    quint16 port = 0;
    QString directory; // none: records are only shown
    QString nameTemplate; // of the files, with {number}
    bool overwrite = false;
    qint64 count = 0; // of records to leave after; 0: none
    quint32 longestRecord = 0; // bytes
    std::chrono::seconds silence{0}; // of a link, to be reported; 0: never
    qint64 closeAfter = 0; // records of a connection, then it is closed; 0: never
    qint64 stopAfter = 0; // records of a connection, then nothing more is read; 0: never
    bool quiet = false;
};

// The TCP peer: takes every connection, cuts its stream into records and keeps or shows them.
//
// Owner:   the subcommand, for the time of its event loop.
// Thread:  main thread.
// Errors:  a peer's fault is said and drops its connection; a record that cannot be written ends
//          the event loop with the tool's failure status.
class Receiver : public QObject
{
public:
    explicit Receiver(const ReceiveOptions &receiveOptions);
    ~Receiver() override;
    // False, and said, if the port or the folder cannot be used.
    [[nodiscard]] bool start();
    void saySummary() const;

private:
    struct Link
    {
        QString peer;
        LinkRecord::Reader reader;
        QTimer silence;
        qint64 records = 0;
        bool isSilent = false;
        bool isLeftAlone = false; // nothing more is read of it
    };

    void accept();
    void watchSilence(Link &link) const;
    void noteLife(Link &link) const;
    void take(QTcpSocket *socket, Link &link);
    void takeBody(const QByteArray &body, Link &link);
    [[nodiscard]] std::optional<qint64> keep(const QByteArray &body);
    void misbehave(QTcpSocket *socket, Link &link) const;
    void dropOversized(QTcpSocket *socket, const Link &link);
    void sayEnd(const Link &link) const;
    void sayEvent(const QString &what) const;

    const ReceiveOptions &options;
    QTcpServer server;
    NumberedFiles files;
    int openLinks = 0;
    bool finished = false;
    qint64 connections = 0;
    qint64 records = 0;
    qint64 bytes = 0; // of the records' bodies
    qint64 keepAlives = 0;
};
