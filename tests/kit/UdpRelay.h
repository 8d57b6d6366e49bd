#pragma once

#include <QNetworkDatagram>
#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QUdpSocket>

// Returns a free port. No socket here asks for the system's proxy settings: Qt would do so on a
// thread that the thread sanitizer does not understand.
inline quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.setProxy(QNetworkProxy::NoProxy);
    probe.bind();
    return probe.localPort();
}

// One direction of a bad link. Passes the datagrams that arrive at its port on to another one, but
// loses half of them.
struct UdpRelay : QUdpSocket
{
    explicit UdpRelay(quint32 seed)
        : random(seed)
    {
        setProxy(QNetworkProxy::NoProxy);
        bind(QHostAddress::LocalHost);
        connect(this, &QIODevice::readyRead, this, [this] {
            while (hasPendingDatagrams()) {
                const QByteArray datagram = receiveDatagram().data();
                if (random.bounded(2) == 0)
                    writeDatagram(datagram, QHostAddress::LocalHost, target);
            }
        });
    }

    QRandomGenerator random;
    quint16 target = 0;
};
