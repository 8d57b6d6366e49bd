// The receive loop of the bus, over a real connection. The bytes behind the first one arrive in two
// pieces, cut where that one says.
#include "Fuzzing.h"
#include "Record.h"
#include "TConnector.h"

#include <sys/socket.h>
#include <unistd.h>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Fuzzing fuzzing;
    static TConnector *const connector = [] {
        auto *made = new TConnector(&fuzzing.application);
        QObject::connect(made, &TConnector::NewData, made, [](uchar, const QByteArray &bytes) {
            require(!bytes.isEmpty());
            std::ignore = DataRecord::read(bytes);
        });
        return made;
    }();
    int ends[2];
    if (size == 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return 0;
    auto *socket = new TMyLocalSocket(connector);
    socket->setSocketDescriptor(ends[0]);
    connector->newInConnection(socket);

    const QByteArray bytes = bytesOf(data + 1, size - 1);
    const qsizetype cut = std::min<qsizetype>(data[0], bytes.size());
    for (const QByteArray &piece : {bytes.first(cut), bytes.sliced(cut)}) {
        if (::send(ends[1], piece.data(), size_t(piece.size()), MSG_NOSIGNAL) > 0)
            socket->waitForReadyRead(0);
    }
    ::close(ends[1]);
    socket->abort();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    require(connector->incoming().isEmpty());
    return 0;
}
