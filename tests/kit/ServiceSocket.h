#pragma once

#include <QByteArrayList>
#include <QFile>
#include <QSocketNotifier>

#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// The socket on which a service manager hears its services.
class ServiceSocket
{
public:
    explicit ServiceSocket(const QString &path)
        : descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {AF_UNIX, {}};
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
        if (::bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
            qFatal("cannot bind %s", qPrintable(path));
        // A full socket would block the service.
        reader = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
        QObject::connect(
            reader.get(), &QSocketNotifier::activated, reader.get(), [this] { read(); });
    }
    ~ServiceSocket() { ::close(descriptor); }

    // All that has come so far but signs of life, in order.
    [[nodiscard]] QByteArrayList heard() const { return messages; }

    int signsOfLife = 0;

private:
    void read()
    {
        char message[1'000];
        for (ssize_t size; (size = ::recv(descriptor, message, sizeof(message), 0)) > 0;) {
            const QByteArray text(message, size);
            if (text == "WATCHDOG=1")
                ++signsOfLife;
            else if (!text.startsWith("EXTEND_TIMEOUT_USEC="))
                messages.append(text);
        }
    }

    const int descriptor;
    std::unique_ptr<QSocketNotifier> reader;
    QByteArrayList messages;
};
