#pragma once

#include "LinkRecord.h"

#include <QTcpServer>
#include <QTcpSocket>

#include <sys/socket.h>

// The peer of the TCP link: keeps the bodies of the records of all its connections.
class TcpPeer : public QTcpServer
{
public:
    explicit TcpPeer(quint16 port = 0)
    {
        connect(this, &QTcpServer::newConnection, this, [this] {
            socket = nextPendingConnection();
            reader = LinkRecord::Reader();
            linkStarts.append(bodies.size());
            socket->setReadBufferSize(reading ? 0 : 1);
            connect(socket, &QIODevice::readyRead, this, [this] { read(); });
        });
        if (!listen(QHostAddress::LocalHost, port))
            qFatal("cannot listen");
    }

    // What its kernel takes and acknowledges of coming connections while nobody reads. The kernel
    // may double it, and rounds.
    void setKernelBuffer(int bytes)
    {
        ::setsockopt(int(socketDescriptor()), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
    }

    // Ends the connection with a reset.
    void reset()
    {
        const linger atOnce = {1, 0};
        ::setsockopt(
            int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
        socket->abort();
        socket = nullptr;
    }

    // Reads what its kernel has taken so far, or leaves in the kernel what is to come.
    void setReading(bool on)
    {
        reading = on;
        if (socket) {
            socket->setReadBufferSize(on ? 0 : 1);
            read();
        }
    }

    // As a program that has stored so many records of the connection; the bytes go out in pieces.
    void acknowledge(quint64 records, qsizetype piece = sizeof(quint64))
    {
        const QByteArray bytes = LinkRecord::acknowledgement(records);
        for (qsizetype at = 0; at < bytes.size() && socket->isOpen(); at += piece) {
            socket->write(bytes.mid(at, piece));
            socket->flush();
        }
    }

    QByteArrayList bodies;
    QList<qsizetype> linkStarts; // the place of every connection's first body
    bool acknowledging = false; // what it reads, as soon as it has read it
    QTcpSocket *socket = nullptr;
    bool reading = true; // false before a connection: its bytes stay in the kernel

private:
    void read()
    {
        if (!reading || !socket->isOpen())
            return;
        reader.append(socket->readAll());
        while (const auto body = reader.next())
            bodies.append(*body);
        if (acknowledging)
            acknowledge(quint64(bodies.size() - linkStarts.last()));
    }
    LinkRecord::Reader reader;
};

// What group "Main" needs to find the peer. No keep-alive comes between the records of a slow test.
inline QByteArray tcpSettings(const TcpPeer &peer)
{
    return "Protocol=TCP\nReconnectionTimeout=1\nLiveMessageTimeout=3600\nPort="
        + QByteArray::number(peer.serverPort()) + '\n';
}
