#pragma once

#include "BusFrame.h"
#include "DataRecord.h"
#include "TConnector.h"
#include "Waiting.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDataStream>
#include <QTimerEvent>

// "kind name message data id"
inline QString shown(const BusFrame &frame)
{
    return QString::fromUtf8(QByteArray::number(frame.kind) + ' ' + frame.name + ' ' + frame.message
        + ' ' + frame.data + ' ' + QByteArray::number(frame.id));
}

// Does a pass of a module's bus, which does none by itself from then on.
inline void passOf(TConnector &bus)
{
    QAbstractEventDispatcher::instance()->unregisterTimers(&bus);
    QTimerEvent event(1);
    QCoreApplication::sendEvent(&bus, &event);
}

// Another module or the administration server. Keeps the bytes of all its connections together.
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

    // What every frame shows, one line each.
    [[nodiscard]] QStringList heard() const
    {
        QStringList lines;
        BusFrame frame;
        QDataStream stream(received); // writes and reads byte arrays as frames
        for (QByteArray body; (stream >> body).status() == QDataStream::Ok;) {
            frame.read(body);
            lines.append(shown(frame));
        }
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
        const auto isConnected = [&] {
            connectToServer(name);
            return waitForConnected();
        };
        if (!QTest::qWaitFor(isConnected, longestWait))
            qFatal("cannot connect to %s", qPrintable(name));
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
