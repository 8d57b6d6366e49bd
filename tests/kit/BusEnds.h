#pragma once

#include "BusFrame.h"
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
        connect(
            this, &QLocalServer::newConnection, this, [this] { accept(nextPendingConnection()); });
        if (!listen(name))
            qFatal("cannot listen on %s", qPrintable(name));
    }

    [[nodiscard]] QList<BusFrame> frames() const
    {
        QList<BusFrame> result;
        qsizetype at = 0;
        while (at + 4 <= received.size()) {
            const qint32 length = qFromBigEndian<qint32>(received.constData() + at);
            if (length < 0 || at + 4 + length > received.size())
                break;
            result.emplaceBack().read(QByteArrayView(received).sliced(at + 4, length));
            at += 4 + length;
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
        const QList<QLocalSocket *> all = sockets;
        sockets.clear();
        for (QLocalSocket *socket : all)
            socket->abort();
    }

    QList<QLocalSocket *> sockets;
    QByteArray received;
    bool reading = true;

private:
    void accept(QLocalSocket *socket)
    {
        sockets.append(socket);
        if (!reading)
            return socket->setReadBufferSize(1);
        connect(socket, &QIODevice::readyRead, this, [=, this] { received += socket->readAll(); });
    }
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
};
