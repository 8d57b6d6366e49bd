#include "RecordLink.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype pieceBytes = 1'048'576; // so that memory grows only as a large record arrives

} // namespace

RecordLink::RecordLink(int socket, quint32 longestRecord, QObject *parent)
    : QObject(parent)
    , descriptor(socket)
    , notifier(socket, QSocketNotifier::Read)
    , reader(longestRecord)
{
    // An acknowledgement must not wait for more bytes to share a packet with.
    const int noDelay = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
    connect(&notifier, &QSocketNotifier::activated, this, &RecordLink::readable);
}

QString RecordLink::peer() const
{
    sockaddr_storage address = {};
    socklen_t size = sizeof(address);
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    char host[NI_MAXHOST] = {}, port[NI_MAXSERV] = {};
    if (::getpeername(descriptor.get(), generic, &size) != 0
        || ::getnameinfo(generic, size, host, sizeof(host), port, sizeof(port),
               NI_NUMERICHOST | NI_NUMERICSERV)
            != 0)
        return u"a peer that has gone"_s;
    return u"%1 port %2"_s.arg(QString::fromLatin1(host), QString::fromLatin1(port));
}

std::optional<QByteArray> RecordLink::next()
{
    while (!isOver && reader.refusedLength() == 0) {
        QByteArray piece(std::min(reader.missing(), pieceBytes), Qt::Uninitialized);
        const ssize_t count =
            ::recv(descriptor.get(), piece.data(), size_t(piece.size()), MSG_DONTWAIT);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno == EAGAIN)
            return std::nullopt;
        if (count <= 0) {
            isOver = true;
            stopReading();
            return std::nullopt;
        }
        readBytes += count;
        reader.append(piece.first(count));
        if (std::optional<QByteArray> body = reader.next())
            return body;
    }
    return std::nullopt;
}

// An error here counts as success: next() finds out that the connection has ended.
bool RecordLink::acknowledge(quint64 records) const
{
    const QByteArray number = LinkRecord::acknowledgement(records);
    const ssize_t count = ::send(
        descriptor.get(), number.constData(), size_t(number.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
    return count == number.size() || (count < 0 && errno != EAGAIN);
}

void RecordLink::close()
{
    isOver = true;
    stopReading();
    ::close(descriptor.release());
}

QByteArrayList RecordLink::unread() const
{
    int waiting = 0;
    ::ioctl(descriptor.get(), FIONREAD, &waiting);
    QByteArray queue(waiting, Qt::Uninitialized);
    // MSG_PEEK, because reading would open the window, and the module would send more.
    const ssize_t count =
        ::recv(descriptor.get(), queue.data(), size_t(queue.size()), MSG_PEEK | MSG_DONTWAIT);
    LinkRecord::Reader rest(std::numeric_limits<quint32>::max());
    rest.append(reader.unfinished());
    rest.append(queue.first(std::max<ssize_t>(count, 0)));
    QByteArrayList bodies;
    while (std::optional<QByteArray> body = rest.next()) {
        if (*body != LinkRecord::keepAlive)
            bodies.append(*body);
    }
    return bodies;
}
