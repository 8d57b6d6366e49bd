#pragma once

#include "Record.h"

#include <QTcpServer>
#include <QTcpSocket>

// The peer of the TCP link: keeps the bodies of the records of all its connections.
class TcpPeer : public QTcpServer
{
public:
    explicit TcpPeer(quint16 port = 0)
    {
        connect(this, &QTcpServer::newConnection, this, [this] {
            socket = nextPendingConnection();
            reader = LinkRecord::Reader();
            connect(socket, &QIODevice::readyRead, this, [this] { read(); });
        });
        if (!listen(QHostAddress::LocalHost, port))
            qFatal("cannot listen");
    }
    QByteArrayList bodies;
    QTcpSocket *socket = nullptr;

private:
    void read()
    {
        reader.append(socket->readAll());
        while (const auto body = reader.next())
            bodies.append(*body);
    }
    LinkRecord::Reader reader;
};
