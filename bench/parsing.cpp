// Measures bus parsing: data frames a second from a Unix socket to the slot that receives them.

#include "Kit.h"

#include "Memory.h"
#include "TConnector.h"

#include <QCoreApplication>
#include <QTimerEvent>

#include <algorithm>
#include <array>
#include <cstring>
#include <endian.h>
#include <memory>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t readSize = 256 * 1024; // bytes that the bare reader asks for at once

// A stream of equal frames.
struct Stream
{
    QByteArray piece; // whole frames, written at once
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

// Receives the bare reader's frames. Not inlined, so that the compiler cannot remove the work.
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

// Cuts a stream of data frames with plain reads. Copies the data of each frame into memory of its
// own, as the module's slots receive it. Reads the rest of an incomplete frame straight to its
// place.
class BareReader
{
public:
    explicit BareReader(int from)
        : socket(from)
        , buffer(readSize)
    {
    }
    void read(int frames, Taken &taken)
    {
        while (taken.frames < frames) {
            std::array<char, headerSize> header;
            fill(header.data(), headerSize);
            uint32_t size;
            std::memcpy(&size, header.data() + headerSize - sizeof(size), sizeof(size));
            size = be32toh(size);
            const std::unique_ptr<char[]> data(new char[size]);
            fill(data.get(), size);
            taken.take(data.get(), size);
        }
    }

private:
    static constexpr size_t headerSize = 9; // the length, the version, the count of the data

    void fill(char *to, size_t size)
    {
        const size_t buffered = std::min(size, end - at);
        std::memcpy(to, buffer.data() + at, buffered);
        at += buffered;
        for (size_t filled = buffered; filled < size;) {
            const bool isLarge = size > readSize;
            filled +=
                isLarge ? readInto(to + filled, size - filled) : refill(to + filled, size - filled);
        }
    }
    size_t refill(char *to, size_t size)
    {
        end = readInto(buffer.data(), readSize);
        at = std::min(size, end);
        std::memcpy(to, buffer.data(), at);
        return at;
    }
    size_t readInto(char *to, size_t size)
    {
        const ssize_t count = ::read(socket, to, size);
        if (count <= 0)
            fail("the stream ends early");
        return size_t(count);
    }

    const int socket;
    std::vector<char> buffer;
    size_t at = 0, end = 0; // bounds of the unread bytes in the buffer
};

// The connector that ships, with its event loop.
class Subject
{
public:
    explicit Subject(const RamFolder &folder)
    {
        connector.SetServerName(QStringLiteral("me"));
        QTimerEvent pass(1); // the connector's own first pass would come after five seconds
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
        reader.read(stream.frames(), taken);
        const double end = seconds();
        feeder.join();
        return end - start;
    }

    Taken taken;

private:
    const Socket listener, bus, accepted;
    BareReader reader{accepted.get()};
};

void measure(const Options &options, Subject &subject, Probe &probe, const char *title,
    const char *goal, const Stream &stream)
{
    Figure rate(title, "1/s", goal);
    Figure cost("  processor time a frame", "us");
    subject.run(stream); // a warm-up: later runs find their memory allocated
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
    keepFreedMemory(); // as the module does
    QCoreApplication application(argc, argv);
    const RamFolder folder;
    qputenv("TMPDIR", QByteArray::fromStdString(folder.path()));
    Subject subject(folder);
    Probe probe(folder);
    measure(options, subject, probe, "bus parsing, 300 B frames", ">= 0.5",
        makeStream(300, 1'000, options.amount(500, 5)));
    measure(options, subject, probe, "bus parsing, 10 MB frames", ">= 0.8",
        makeStream(10'000'000, 1, options.amount(60, 3)));
}
