#pragma once

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

// One direction of a bad link: what arrives at its port goes on to another one, unless it is lost;
// some datagrams come twice, some late. Information records (data packet 0) keep their place: a
// late copy of one makes any receiver start its file afresh.
class UdpRelay : public QObject
{
public:
    UdpRelay(unsigned seed, int lossPercentage)
        : random(seed)
        , loss(lossPercentage)
    {
        socket.setProxy(QNetworkProxy::NoProxy);
        socket.bind(QHostAddress::LocalHost);
        connect(&socket, &QIODevice::readyRead, this, [this] {
            while (socket.hasPendingDatagrams()) {
                QByteArray datagram(socket.pendingDatagramSize(), '\0');
                socket.readDatagram(datagram.data(), datagram.size());
                pass(datagram);
            }
        });
    }
    [[nodiscard]] quint16 port() const { return socket.localPort(); }

    quint16 target = 0;

private:
    [[nodiscard]] bool happens(int percentage) { return int(random() % 100) < percentage; }

    void pass(const QByteArray &datagram)
    {
        if (happens(loss))
            return;
        const auto forward = [=, this] {
            socket.writeDatagram(datagram, QHostAddress::LocalHost, target);
        };
        const bool isInformation =
            datagram.mid(9, 1) == "\xB1" && datagram.mid(11, 2) == QByteArray(2, '\0');
        if (!isInformation && happens(10))
            QTimer::singleShot(int(random() % 50), this, forward);
        else
            forward();
        if (!isInformation && happens(10))
            forward();
    }

    QUdpSocket socket;
    std::mt19937 random;
    const int loss;
};
