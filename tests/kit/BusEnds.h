#pragma once

#include "BusFrame.h"
#include "DataRecord.h"
#include "Waiting.h"

#include <QDeadlineTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>
#include <QtEndian>

// "kind name message data id"
inline QString shown(const BusFrame &frame)
{
    return QStringLiteral("%1 %2 %3 %4 %5")
        .arg(QString::number(frame.kind), QString::fromUtf8(frame.name),
            QString::fromUtf8(frame.message), QString::fromUtf8(frame.data),
            QString::number(frame.id));
}

// A server of the bus, as another module or the administration server is one. It keeps the bytes of
// all its connections together.
class BusServer : public QLocalServer
{
public:
    explicit BusServer(const QString &name)
    {
        connect(this, &QLocalServer::newConnection, this, [this] {
            QLocalSocket *socket = sockets.emplaceBack(nextPendingConnection());
            if (!reading)
                return socket->setReadBufferSize(1);
            connect(
                socket, &QIODevice::readyRead, this, [=, this] { received += socket->readAll(); });
        });
        if (!listen(name))
            qFatal("cannot listen on %s", qPrintable(name));
    }

    [[nodiscard]] QList<BusFrame> frames() const
    {
        QList<BusFrame> result;
        for (QByteArrayView rest = received; rest.size() >= 4;) {
            const qsizetype size = 4 + qsizetype(qFromBigEndian<quint32>(rest.data()));
            if (size > rest.size())
                break;
            result.emplaceBack().read(rest.first(size).sliced(4));
            rest = rest.sliced(size);
        }
        return result;
    }

    // What every frame shows, one line each.
    [[nodiscard]] QStringList heard() const
    {
        QStringList lines;
        for (const BusFrame &frame : frames())
            lines.append(shown(frame));
        return lines;
    }

    void send(const QByteArray &bytes)
    {
        for (QLocalSocket *socket : std::as_const(sockets))
            socket->write(bytes);
    }

    void dropConnections()
    {
        for (QLocalSocket *socket : std::exchange(sockets, {}))
            socket->abort();
    }

    QList<QLocalSocket *> sockets;
    QByteArray received;
    bool reading = true;
};

// Connects to a module's bus name, as a sending module does.
class BusClient : public QLocalSocket
{
public:
    explicit BusClient(const QString &name)
    {
        // A name can be there a moment before somebody listens behind it.
        const QDeadlineTimer end(longestWait);
        for (connectToServer(name); !waitForConnected(); connectToServer(name)) {
            if (end.hasExpired())
                qFatal("cannot connect to %s", qPrintable(name));
            QThread::msleep(10);
        }
    }
    void send(const QByteArray &bytes)
    {
        write(bytes);
        flush();
    }
    void record(const char *kind, const QString &name, const QByteArray &payload)
    {
        write(BusFrame::makeData(1, DataRecord{kind, name, payload}.write()));
    }
};
