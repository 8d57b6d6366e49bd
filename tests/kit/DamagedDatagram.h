#pragma once

#include "WholeFile.h"

#include <QByteArray>
#include <QtEndian>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

// Sends a UDP datagram of so many bytes with that checksum, which is wrong for its content, to a
// port of this host: "127.0.0.1" or "::1". False without the right to open a raw socket.
inline bool sendDamaged(const char *host, quint16 port, qsizetype size, quint16 checksum)
{
    sockaddr_in v4 = {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {}, .sin_zero = {}};
    sockaddr_in6 v6 = {};
    v6.sin6_family = AF_INET6;
    const bool isV4 = inet_pton(AF_INET, host, &v4.sin_addr) == 1;
    if (!isV4 && inet_pton(AF_INET6, host, &v6.sin6_addr) != 1)
        return false;
    const Descriptor raw(::socket(isV4 ? AF_INET : AF_INET6, SOCK_RAW, IPPROTO_UDP));
    QByteArray datagram(8 + size, 'x');
    const quint16 header[] = {port, port, quint16(datagram.size()), checksum};
    for (int i = 0; i < 4; ++i)
        qToBigEndian(header[i], datagram.data() + 2 * i);
    const auto *to = isV4 ? reinterpret_cast<sockaddr *>(&v4) : reinterpret_cast<sockaddr *>(&v6);
    const ssize_t sent = ::sendto(raw.get(), datagram.constData(), size_t(datagram.size()), 0, to,
        isV4 ? sizeof(v4) : sizeof(v6));
    return sent == datagram.size();
}
