// Bus to TCP while the link is up and nothing waits: records a second from a bus connection to the
// peer's socket.

#include "Kit.h"

#include <thread>

namespace {

// A carrier of records, the module or the bare program, with both its ends in our hands.
struct Road
{
    const Program &program;
    Socket bus;
    Socket peer;
    double processorSeconds = 0; // that the last run has taken

    // Seconds from the first byte on the bus to the last one at the peer.
    double run(const QByteArray &frames, size_t linkBytes)
    {
        const double before = program.processorSeconds();
        const double start = seconds();
        std::thread feeder([&] { writeAll(bus.get(), frames.constData(), size_t(frames.size())); });
        readBytes(peer.get(), linkBytes);
        const double taken = seconds() - start;
        feeder.join();
        processorSeconds = program.processorSeconds() - before;
        return taken;
    }
};

QByteArray makeFrames(int records, int fileBytes)
{
    QByteArray frames;
    for (int number = 0; number < records; ++number)
        frames += recordFrame(number, fileBytes);
    return frames;
}

void measure(const Options &options, Road &subject, Road &probe, int records, int fileBytes)
{
    const QByteArray frames = makeFrames(records, fileBytes);
    const size_t linkBytes = size_t(records) * size_t(4 + fileBytes);
    const std::string size = fileBytes < 1024 ? " B" : " KiB";
    const std::string title = "bus to TCP, "
        + std::to_string(fileBytes < 1024 ? fileBytes : fileBytes / 1024) + size + " records";
    Figure rate(title, "1/s", ">= 0.35");
    Figure cost("  processor time a record", "us");
    for (int run = 0; run < options.runs(); ++run) {
        const double bare = probe.run(frames, linkBytes);
        const double module = subject.run(frames, linkBytes);
        rate.add(records / module, records / bare);
        cost.add(subject.processorSeconds / records * 1e6, probe.processorSeconds / records * 1e6);
    }
    rate.print();
    cost.print();
}

} // namespace

int main(int argc, char *argv[])
{
    const Options options(argc, argv);
    const RamFolder own, bareOwn;
    const Listener listener, bareListener;
    own.makeFolder("spool");
    const std::string bareSpool = bareOwn.makeFolder("spool");

    const Program bare("bench_bare", bareOwn,
        {bareOwn.path("me"), bareSpool, std::to_string(bareListener.port()), "ring"});
    const Module module(
        own, "Protocol=TCP\nReconnectionTimeout=1\nPort=" + std::to_string(listener.port()) + '\n');
    Road probe = {bare, connectLocal(bareOwn.path("me")), bareListener.accept()};
    Road subject = {module, connectLocal(own.path("me")), listener.accept()};
    measure(options, subject, probe, options.amount(200'000, 500), 300);
    measure(options, subject, probe, options.amount(6'000, 50), 65'536);
}
