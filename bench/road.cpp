// Measures the way from the bus to TCP while the link is up and nothing waits: records a second
// from a bus connection to the peer's socket, and to the file of a peer with or without
// acknowledgements.

#include "Kit.h"
#include "LinkRecord.h"

#include <array>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t linkHeader = 4; // bytes in front of every record
constexpr off_t storeBytes = 16 * 1024 * 1024; // of the peer's file, which then restarts

// A peer's program: writes each read to a file and, if `shallAcknowledge`, acknowledges the whole
// records in it.
class StoringPeer
{
public:
    StoringPeer(Socket link, const std::string &path, bool shallAcknowledge)
        : socket(std::move(link))
        , file(int(check(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600), "open")))
        , acknowledges(shallAcknowledge)
    {
    }

    void take(size_t records, size_t recordBytes)
    {
        for (size_t taken = 0; taken < records * recordBytes;) {
            const ssize_t count = check(::read(socket.get(), buffer.data(), buffer.size()), "read");
            if (count == 0)
                fail("the module has ended the link");
            check(::pwrite(file.get(), buffer.data(), size_t(count), at), "pwrite");
            at = at + count < storeBytes ? at + count : 0;
            taken += size_t(count);
            if (acknowledges)
                acknowledge(stored + taken / recordBytes);
        }
        stored += records;
    }

private:
    void acknowledge(size_t number) const
    {
        const QByteArray bytes = LinkRecord::acknowledgement(number);
        writeAll(socket.get(), bytes.constData(), size_t(bytes.size()));
    }

    Socket socket, file;
    const bool acknowledges;
    size_t stored = 0; // records, over all runs
    off_t at = 0; // offset in the file
    std::array<char, 1 << 18> buffer;
};

// The module or the bare program, with this program at both ends: on the bus and as the peer.
struct Road
{
    const Program &program;
    Socket bus;
    Socket peer;
    double processorSeconds = 0; // that the last run has taken

    // Returns the seconds from the first byte on the bus to the last one at the peer.
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

std::string sizeText(int bytes)
{
    return bytes < 1024 ? std::to_string(bytes) + " B" : std::to_string(bytes / 1024) + " KiB";
}

void measure(const Options &options, Road &subject, Road &probe, int records, int fileBytes)
{
    const QByteArray frames = makeFrames(records, fileBytes);
    const size_t linkBytes = size_t(records) * (linkHeader + size_t(fileBytes));
    Figure rate("bus to TCP, " + sizeText(fileBytes) + " records", "1/s", ">= 0.35");
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

// A module with its bus and a peer that stores.
struct StoredRoad
{
    StoredRoad(const std::string &lines, bool acknowledges)
        : module((folder.makeFolder("spool"), folder),
            "Protocol=TCP\nReconnectionTimeout=1\nPort=" + std::to_string(listener.port()) + '\n'
                + lines)
        , bus(connectLocal(folder.path("me")))
        , peer(listener.accept(), folder.path("stored"), acknowledges)
    {
    }

    double run(const QByteArray &frames, int records, int fileBytes)
    {
        const double before = module.processorSeconds();
        const double start = seconds();
        std::thread feeder([&] { writeAll(bus.get(), frames.constData(), size_t(frames.size())); });
        peer.take(size_t(records), linkHeader + size_t(fileBytes));
        const double taken = seconds() - start;
        feeder.join();
        processorSeconds = module.processorSeconds() - before;
        return taken;
    }

    const RamFolder folder;
    const Listener listener;
    const Module module;
    const Socket bus;
    StoringPeer peer;
    double processorSeconds = 0; // that the last run has taken
};

void measureAcknowledged(
    const Options &options, StoredRoad &subject, StoredRoad &probe, int records, int fileBytes)
{
    const QByteArray frames = makeFrames(records, fileBytes);
    Figure rate("acknowledged by the peer's program, " + sizeText(fileBytes), "1/s", ">= 0.8");
    Figure cost("  processor time a record", "us");
    for (int run = 0; run < options.runs(); ++run) {
        const double byKernel = probe.run(frames, records, fileBytes);
        rate.add(records / subject.run(frames, records, fileBytes), records / byKernel);
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

    StoredRoad byKernel("", false), byProgram("Acknowledgements=1\n", true);
    measureAcknowledged(options, byProgram, byKernel, options.amount(200'000, 500), 300);
    measureAcknowledged(options, byProgram, byKernel, options.amount(6'000, 50), 65'536);
}
