// Fuzzes what arrives on the bus. The first byte of the input says where the rest is cut into two
// pieces. A connection must dispatch the same frames from the two pieces as from one.
#include "Fuzzing.h"
#include "TConnector.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {

// Returns the fields of all that a connection dispatches, and the name of its other end.
QByteArrayList dispatched(TConnector &connector, const QByteArrayList &pieces)
{
    QByteArrayList fields;
    auto *socket = new TMyLocalSocket(&connector);
    QObject::connect(&connector, &TConnector::NewCommand, socket,
        [&](const QByteArray &name, const QByteArray &data, int id) {
            fields << name << data << QByteArray::number(id);
        });
    QObject::connect(&connector, &TConnector::NewAction, socket,
        [&](const QByteArray &name, const QByteArray &message, const QByteArray &data, int id) {
            fields << name << message << data << QByteArray::number(id);
        });
    QObject::connect(
        &connector, &TConnector::NewData, socket, [&](uchar version, const QByteArray &data) {
            require(!data.isEmpty());
            fields << QByteArray::number(version) << data;
        });
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    socket->setSocketDescriptor(ends[0]);
    connector.newInConnection(socket);
    for (const QByteArray &piece : pieces) {
        if (::send(ends[1], piece.data(), size_t(piece.size()), MSG_NOSIGNAL) > 0)
            socket->waitForReadyRead(0);
    }
    ::close(ends[1]);
    const QByteArray name = socket->name;
    socket->abort();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    require(connector.incoming().isEmpty());
    return fields << name;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Fuzzing fuzzing;
    static TConnector connector(nullptr);
    if (size == 0)
        return 0;
    const QByteArray bytes = bytesOf(data + 1, size - 1);
    const qsizetype cut = std::min<qsizetype>(data[0], bytes.size());
    require(dispatched(connector, {bytes.first(cut), bytes.sliced(cut)})
        == dispatched(connector, {bytes}));
    return 0;
}
