#pragma once

#include <QByteArrayList>
#include <QFile>
#include <QSocketNotifier>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// The socket on which a service manager hears its services.
class ServiceSocket : public QSocketNotifier
{
public:
    explicit ServiceSocket(const QString &path)
        : QSocketNotifier(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), Read)
    {
        sockaddr_un address = {AF_UNIX, {}};
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
        if (::bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
            qFatal("cannot bind %s", qPrintable(path));
        connect(this, &ServiceSocket::activated, this, &ServiceSocket::read);
    }
    ~ServiceSocket() override { ::close(descriptor); }

    // All that has come so far but signs of life, in order.
    [[nodiscard]] QByteArrayList heard() const { return messages; }

    int signsOfLife = 0;
    bool isStartExtended = false;

private:
    void read()
    {
        char message[1'000];
        for (ssize_t size; (size = ::recv(descriptor, message, sizeof(message), 0)) > 0;) {
            const QByteArray text(message, size);
            if (text == "WATCHDOG=1")
                ++signsOfLife;
            else if (text.startsWith("EXTEND_TIMEOUT_USEC="))
                isStartExtended = true;
            else
                messages.append(text);
        }
    }

    const int descriptor = int(socket());
    QByteArrayList messages;
};
