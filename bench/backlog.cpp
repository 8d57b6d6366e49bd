// Measures a spool that has grown while the peer was away: the cost of one more record, the speed
// at which the backlog is sent, and the memory that this takes.

#include "Kit.h"

#include "LinkRecord.h"

#include <cstdio>
#include <filesystem>
#include <memory>

namespace {

constexpr int fileBytes = 300; // of a spool file
constexpr int linkRecordBytes = LinkRecord::lengthSize + fileBytes;
constexpr int firstNew = 500'000'000; // number of a record behind every backlog

void fill(const std::string &spool, int files)
{
    std::filesystem::create_directory(spool);
    for (int number = 0; number < files; ++number) {
        std::FILE *file = std::fopen((spool + '/' + recordName(number)).c_str(), "w");
        if (!file)
            fail("cannot fill the spool");
        const std::string content = "tempdb" + std::string(fileBytes - 6, 'x');
        std::fwrite(content.data(), 1, content.size(), file);
        std::fclose(file);
    }
}

// --- the peer is down ---

// A module whose peer refuses every attempt, with spools of several sizes to choose from.
class PeerDown
{
public:
    explicit PeerDown(int records)
        : count(records)
    {
        for (int i = 0; i < records; ++i)
            frames += recordFrame(firstNew + i, fileBytes);
    }

    // Returns the microseconds for one more record in a spool that already holds files.
    double costWith(const std::string &spool)
    {
        std::filesystem::remove(folder.path("spool"));
        std::filesystem::create_directory_symlink(spool, folder.path("spool"));
        const std::string last = spool + '/' + recordName(firstNew + count - 1);
        const double start = seconds();
        writeAll(bus.get(), frames.constData(), size_t(frames.size()));
        waitUntil([&] { return std::filesystem::exists(last); }, "the last record");
        const double taken = seconds() - start;
        for (int i = 0; i < count; ++i)
            std::filesystem::remove(spool + '/' + recordName(firstNew + i));
        return taken / count * 1e6;
    }

    [[nodiscard]] double memory() const { return module.kilobytes("VmHWM") / 1024; }

private:
    const int count;
    QByteArray frames;
    const RamFolder folder;
    // Port 1 of the loopback address: nobody listens there.
    const Module module{folder, "Protocol=TCP\nReconnectionTimeout=1\nPort=1\n"};
    const Socket bus = connectLocal(folder.path("me"));
};

void measurePeerDown(const Options &options)
{
    const int small = options.amount(1'000, 100), large = options.amount(100'000, 2'000);
    const RamFolder spools;
    for (const int files : {0, small, large})
        fill(spools.path(std::to_string(files)), files);
    PeerDown bench(options.amount(10'000, 500));

    Figure one("peer down, one more record to 1,000", "us", "the same");
    Figure many("peer down, one more record to 100,000", "us", "the same");
    Figure memory("  memory at most, after those against before", "MB", "flat");
    const double idle = bench.memory();
    for (int run = 0; run < options.runs(); ++run) {
        const double none = bench.costWith(spools.path("0"));
        one.add(bench.costWith(spools.path(std::to_string(small))), none);
        many.add(bench.costWith(spools.path(std::to_string(large))), none);
    }
    memory.add(bench.memory(), idle);
    one.print();
    many.print();
    memory.print();
}

// --- the peer is back ---

struct Drain
{
    double reach; // seconds from the start of the program to the first byte
    double drain; // seconds from the connection to the last byte
    double memory; // megabytes, the peak
};

// Starts a program on a spool of `files` files and waits until the peer has received them all.
template <typename Start> Drain drain(int files, Start startProgram)
{
    const RamFolder folder;
    fill(folder.path("spool"), files);
    const Listener listener;
    const double start = seconds();
    const std::unique_ptr<Program> program = startProgram(folder, listener.port());
    const Socket peer = listener.accept();
    const double connected = seconds();
    readBytes(peer.get(), 1);
    const double first = seconds();
    readBytes(peer.get(), size_t(files) * linkRecordBytes - 1);
    return {first - start, seconds() - connected, program->kilobytes("VmHWM") / 1024};
}

std::unique_ptr<Program> startModule(const RamFolder &folder, int port)
{
    return std::make_unique<Module>(folder, "Protocol=TCP\nPort=" + std::to_string(port) + '\n');
}

std::unique_ptr<Program> startBare(const RamFolder &folder, int port)
{
    const std::vector<std::string> arguments = {
        folder.path("me"), folder.path("spool"), std::to_string(port)};
    return std::make_unique<Program>("bench_bare", folder, arguments);
}

void measureDrain(const Options &options)
{
    const int small = options.amount(1'000, 100), large = options.amount(100'000, 2'000);
    Figure reach("start with 100,000 records, first byte at the peer", "s", "well under 2 s");
    Figure rate("draining 100,000 records", "1/s");
    Figure cost("  a record of 100,000 against one of 1,000", "us", "the same");
    Figure memory("  memory at most, 100,000 against 1,000", "MB", "flat");
    for (int run = 0; run < options.runs(); ++run) {
        const Drain bare = drain(large, startBare);
        const Drain many = drain(large, startModule);
        const Drain few = drain(small, startModule);
        reach.add(many.reach, bare.reach);
        rate.add(large / many.drain, large / bare.drain);
        cost.add(many.drain / large * 1e6, few.drain / small * 1e6);
        memory.add(many.memory, few.memory);
    }
    for (const Figure &figure : {reach, rate, cost, memory})
        figure.print();
}

} // namespace

int main(int argc, char *argv[])
{
    const Options options(argc, argv);
    measurePeerDown(options);
    measureDrain(options);
}
