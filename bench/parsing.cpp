// Bus parsing: data frames a second from a Unix socket to the slot that hears of them.

#include "Kit.h"

#include "TConnector.h"
#include "TLog.h"

#include <QCoreApplication>
#include <QTimerEvent>

#include <algorithm>
#include <cstring>
#include <endian.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t readSize = 256 * 1024; // bytes that the bare reader asks for at once

// One kind of frame, written over and over.
struct Stream
{
    QByteArray piece; // some whole frames
    int framesInPiece;
    int pieces;

    [[nodiscard]] int frames() const { return framesInPiece * pieces; }
    void writeTo(int socket) const
    {
        for (int i = 0; i < pieces; ++i)
            writeAll(socket, piece.constData(), size_t(piece.size()));
    }
};

Stream makeStream(int payloadBytes, int framesInPiece, int pieces)
{
    const QByteArray frame = recordFrame(0, payloadBytes);
    return {frame.repeated(framesInPiece), framesInPiece, pieces};
}

// What the bare reader hands its frames to; not to be optimised away.
struct Taken
{
    int frames = 0;
    size_t bytes = 0;
    [[gnu::noinline]] void take(const char *data, size_t size)
    {
        ++frames;
        bytes += size + size_t(data[0] != 0);
    }
};

// Cuts a stream of data frames with plain reads into one buffer, and hands out where each frame's
// data begins and ends. A frame that is longer than the buffer makes it grow.
void readBare(int socket, int frames, Taken &taken)
{
    std::vector<char> buffer(2 * readSize);
    size_t filled = 0;
    while (taken.frames < frames) {
        const ssize_t count = ::read(socket, buffer.data() + filled, buffer.size() - filled);
        if (count <= 0)
            fail("the stream ends early");
        filled += size_t(count);
        size_t at = 0, wanted = 0;
        while (filled - at >= 4) {
            uint32_t length;
            std::memcpy(&length, buffer.data() + at, sizeof(length));
            wanted = be32toh(length) + 4;
            if (filled - at < wanted)
                break;
            taken.take(buffer.data() + at + 9, wanted - 9);
            at += wanted;
        }
        std::memmove(buffer.data(), buffer.data() + at, filled - at);
        filled -= at;
        buffer.resize(std::max(buffer.size(), wanted));
    }
}

// The connector that ships, with its event loop.
class Subject
{
public:
    explicit Subject(const RamFolder &folder)
    {
        connector.SetServerName(QStringLiteral("me"));
        QTimerEvent pass(1); // the first one would come after five seconds
        QCoreApplication::sendEvent(&connector, &pass);
        bus = connectLocal(folder.path("me"));
        QObject::connect(
            &connector, &TConnector::NewData, &connector, [this](uchar, const QByteArray &data) {
                taken.take(data.constData(), size_t(data.size()));
            });
    }

    double run(const Stream &stream)
    {
        taken = {};
        const double start = seconds();
        std::thread feeder([&] { stream.writeTo(bus.get()); });
        while (taken.frames < stream.frames())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        const double end = seconds();
        feeder.join();
        return end - start;
    }

    Taken taken;

private:
    TConnector connector{nullptr};
    Socket bus;
};

class Probe
{
public:
    explicit Probe(const RamFolder &folder)
        : listener(listenLocal(folder.path("bare")))
        , bus(connectLocal(folder.path("bare")))
        , accepted(::accept(listener.get(), nullptr, nullptr))
    {
    }

    double run(const Stream &stream)
    {
        taken = {};
        const double start = seconds();
        std::thread feeder([&] { stream.writeTo(bus.get()); });
        readBare(accepted.get(), stream.frames(), taken);
        const double end = seconds();
        feeder.join();
        return end - start;
    }

    Taken taken;

private:
    const Socket listener, bus, accepted;
};

void measure(const Options &options, Subject &subject, Probe &probe, const char *title,
    const char *goal, const Stream &stream)
{
    Figure rate(title, "1/s", goal);
    Figure cost("  processor time a frame", "us");
    subject.run(stream); // the first one fills memory that the later ones find
    for (int run = 0; run < options.runs(); ++run) {
        const double start = threadSeconds();
        const double bare = probe.run(stream);
        const double middle = threadSeconds();
        const double shipped = subject.run(stream);
        const double end = threadSeconds();
        if (probe.taken.bytes != subject.taken.bytes)
            fail("the two have not read the same");
        rate.add(stream.frames() / shipped, stream.frames() / bare);
        cost.add((end - middle) / stream.frames() * 1e6, (middle - start) / stream.frames() * 1e6);
    }
    rate.print();
    cost.print();
}

} // namespace

int main(int argc, char *argv[])
{
    const Options options(argc, argv);
    QCoreApplication application(argc, argv);
    const RamFolder folder;
    qputenv("TMPDIR", QByteArray::fromStdString(folder.path()));
    pLog = new TLog(QString::fromStdString(folder.path("log")));
    Subject subject(folder);
    Probe probe(folder);
    measure(options, subject, probe, "bus parsing, 300 B frames", ">= 0.5",
        makeStream(300, 1'000, options.amount(500, 5)));
    measure(options, subject, probe, "bus parsing, 10 MB frames", ">= 0.8",
        makeStream(10'000'000, 1, options.amount(60, 3)));
}
