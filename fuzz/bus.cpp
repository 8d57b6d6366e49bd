// Fuzzes what arrives on the bus. The first byte of the input says where the rest is cut into two
// pieces. Cutting frames from the two pieces must give the same frames as from one. The receive
// loop then dispatches the pieces from a real connection.
#include "BusFrame.h"
#include "DataRecord.h"
#include "Fuzzing.h"
#include "TConnector.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Memory : ByteSource
{
    qint64 bufferedBytes() const override { return bytes.size(); }
    qint64 readBuffered(char *to, qint64 size) override
    {
        const QByteArrayView taken = bytes.first(std::min<qint64>(size, bytes.size()));
        std::copy(taken.begin(), taken.end(), to);
        bytes = bytes.sliced(taken.size());
        return taken.size();
    }
    QByteArrayView bytes;
};

QByteArray cutFrames(const QList<QByteArray> &pieces)
{
    Memory source;
    int expectedSize = 0;
    FrameReader reader(source, expectedSize);
    QByteArray frames;
    BusFrame frame;
    for (const QByteArray &piece : pieces) {
        source.bytes = piece;
        FrameReader::Result result;
        while ((result = reader.next(frame)) == FrameReader::Result::Frame)
            frames += BusFrame::makeAction(frame.name, frame.message, frame.data, frame.id)
                + char(frame.kind);
        if (result == FrameReader::Result::TooLong)
            break;
        require(source.bytes.isEmpty());
    }
    return frames;
}

} // namespace

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
    const QList<QByteArray> pieces = {bytes.first(cut), bytes.sliced(cut)};
    require(cutFrames(pieces) == cutFrames({bytes}));
    for (const QByteArray &piece : pieces) {
        if (::send(ends[1], piece.data(), size_t(piece.size()), MSG_NOSIGNAL) > 0)
            socket->waitForReadyRead(0);
    }
    ::close(ends[1]);
    socket->abort();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    require(connector->incoming().isEmpty());
    return 0;
}
