#pragma once

#include <QNetworkDatagram>
#include <QNetworkProxy>
#include <QTimer>
#include <QUdpSocket>

#include <random>

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
// loses half of them, doubles some and delays some. Information records (data packet 0) stay in
// order: a late one would make the receiver begin afresh.
struct UdpRelay
{
    explicit UdpRelay(unsigned seed)
        : random(seed)
    {
        socket.setProxy(QNetworkProxy::NoProxy);
        socket.bind(QHostAddress::LocalHost);
        QObject::connect(&socket, &QIODevice::readyRead, &socket, [this] {
            while (socket.hasPendingDatagrams())
                pass(socket.receiveDatagram().data());
        });
    }
    [[nodiscard]] quint16 port() const { return socket.localPort(); }

    quint16 target = 0;

private:
    [[nodiscard]] bool happens(int percentage) { return int(random() % 100) < percentage; }

    void pass(const QByteArray &datagram)
    {
        const bool isInformation =
            datagram.mid(9, 1) == "\xB1" && datagram.mid(11, 2) == QByteArray(2, '\0');
        const int copies = happens(50) ? 0 : !isInformation && happens(10) ? 2 : 1;
        for (int i = 0; i < copies; ++i) {
            const int delay = !isInformation && happens(10) ? int(random() % 50) : 0;
            QTimer::singleShot(delay, &socket,
                [=, this] { socket.writeDatagram(datagram, QHostAddress::LocalHost, target); });
        }
    }

    QUdpSocket socket;
    std::mt19937 random;
};
