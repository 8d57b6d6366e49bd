#pragma once

#include <QByteArrayList>
#include <QFile>
#include <QSocketNotifier>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// The socket on which a service manager hears its services.
struct ServiceSocket : QSocketNotifier
{
    explicit ServiceSocket(const QString &path)
        : QSocketNotifier(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), Read)
    {
        sockaddr_un address = {AF_UNIX, {}};
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
        if (::bind(int(socket()), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
            qFatal("cannot bind %s", qPrintable(path));
        connect(this, &ServiceSocket::activated, this, [this] {
            QByteArray text(1'000, '\0');
            text.truncate(::recv(int(socket()), text.data(), size_t(text.size()), 0));
            (text.startsWith("WATCHDOG=") || text.startsWith("EXTEND_") ? signsOfLife : heard)
                .append(text);
        });
    }
    ~ServiceSocket() override { ::close(int(socket())); }

    QByteArrayList heard, signsOfLife; // all that has come so far
};
