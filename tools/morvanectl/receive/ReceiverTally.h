#pragma once

#include <QByteArrayList>
#include <QString>

// Counts what a receiver has kept and lost.
class ReceiverTally
{
public:
    void addConnection() { ++connections; }
    void addKeepAlive() { ++keepAlives; }
    void addKept(qint64 bytes);
    void addLost(const QByteArrayList &bodies);

    [[nodiscard]] qint64 kept() const { return keptRecords; }
    [[nodiscard]] qint64 lost() const { return lostRecords; }
    // Returns text such as "2 records of 14 bytes, 1 keep-alive, 1 connection".
    [[nodiscard]] QString summary() const;

private:
    qint64 connections = 0;
    qint64 keepAlives = 0;
    qint64 keptRecords = 0;
    qint64 keptBytes = 0;
    qint64 lostRecords = 0;
    qint64 lostBytes = 0;
};
