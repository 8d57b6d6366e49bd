// Measures UDP transfers between real modules, through a path with loss, delay and a bottleneck.
// Compares the pace found from acknowledgements (a Timeout of 0) with the fixed pace.

#include "Relay.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

namespace {

// The bottleneck must be used after settleSeconds. Run n starts the second transfer n times
// startOffsetSeconds later, so that the runs differ.
constexpr double settleSeconds = 1;
constexpr double startOffsetSeconds = 0.25;
constexpr size_t fixedBytes = 600'000; // takes three seconds at a Timeout of 1

int freePort()
{
    int port = 0;
    boundUdp(port); // closed again at once
    return port;
}

std::string lines(int timeout, int port, int localPort)
{
    return "Protocol=UDP\nTimeout=" + std::to_string(timeout) + "\nPort=" + std::to_string(port)
        + "\nLocalPort=" + std::to_string(localPort) + '\n';
}

// Two modules. The left one sends files to the right one, directly or through `relay`.
class Pair
{
public:
    Pair(Relay *relay, int timeout)
    {
        const int leftPort = freePort(), rightPort = freePort();
        const int toRight = relay ? relay->addRoad(Relay::Forth, rightPort) : rightPort;
        const int toLeft = relay ? relay->addRoad(Relay::Back, leftPort) : leftPort;
        left.makeFolder("spool");
        right.makeFolder("spool");
        leftLines = lines(timeout, toRight, leftPort);
        rightLines = lines(timeout, toLeft, rightPort);
    }
    void start()
    {
        receiver.emplace(right, rightLines);
        sender.emplace(left, leftLines);
    }
    void put(size_t bytes)
    {
        size = bytes;
        writeNoise(left.path("hidden"), bytes);
        std::filesystem::rename(left.path("hidden"), left.path("spool/file"));
    }
    [[nodiscard]] bool hasArrived() const
    {
        std::error_code error;
        return std::filesystem::file_size(right.path("file"), error) == size && !error;
    }
    [[nodiscard]] double processorSeconds() const { return sender->processorSeconds(); }

private:
    const RamFolder left, right;
    std::string leftLines, rightLines;
    std::optional<Module> receiver, sender;
    size_t size = 0;
};

// Waits until `road` has delivered its first packet. Returns the time.
double waitForFirst(const Relay &relay, size_t road)
{
    while (relay.packets(road) == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    return seconds();
}

// The transfer of one file through a path of its own.
struct Crossing
{
    Crossing(const PathSettings &path, int timeout, size_t bytes)
        : relay(path)
        , pair(&relay, timeout)
    {
        relay.start();
        pair.put(bytes);
        pair.start();
        begin = waitForFirst(relay, 0);
    }
    Relay relay;
    Pair pair;
    double begin; // when the first packet left
};

// Returns the bytes of the file that arrive in a second, counted from its first packet.
double goodput(const PathSettings &path, int timeout, size_t bytes)
{
    const Crossing crossing(path, timeout, bytes);
    while (!crossing.pair.hasArrived())
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    return double(bytes) / (seconds() - crossing.begin);
}

void measureLoss(const Options &options)
{
    const struct
    {
        double loss;
        double fixedGoal, pacedGoal;
    } rows[] = {{0, 196'000, 2e6}, {0.1, 176'000, 1.2e6}, {0.33, 128'000, 6e5}};
    const size_t bytes = size_t(options.amount(1'000'000, 50'000));
    for (const auto &row : rows) {
        PathSettings path;
        path.loss = row.loss;
        char goal[100];
        std::snprintf(goal, sizeof(goal), ">= %.0f and >= %.0f", row.pacedGoal, row.fixedGoal);
        Figure figure("UDP, 1 MB, 25 ms and " + std::to_string(int(row.loss * 100))
                + " % lost each way: Timeout 0 to 1",
            "bytes/s", goal);
        for (int run = 0; run < options.runs(); ++run) {
            path.seed = unsigned(run) + 1;
            figure.add(goodput(path, 0, bytes), goodput(path, 1, bytes));
        }
        figure.print();
    }
}

struct Use
{
    double share = 0; // of the bottleneck's rate, after the first second
    double overflow = 0; // share of the datagrams that the queue dropped
};

Use useOf(double megabits, int timeout, size_t bytes)
{
    PathSettings path;
    path.bitsPerSecond = megabits * 1e6;
    const Crossing crossing(path, timeout, bytes);
    const Relay &relay = crossing.relay;
    std::this_thread::sleep_for(std::chrono::duration<double>(settleSeconds));
    const double before = relay.bytes(0), from = seconds();
    while (!crossing.pair.hasArrived() && seconds() < crossing.begin + 30)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return {(relay.bytes(0) - before) * 8 / (seconds() - from) / path.bitsPerSecond,
        relay.overflowShare(Relay::Forth)};
}

size_t bytesFor(const Options &options, double megabits)
{
    return size_t(std::min(megabits * options.amount(1'000'000, 300'000), 16'000'000.0));
}

void measureBottleneck(const Options &options)
{
    for (const double megabits : {1.0, 10.0, 50.0}) {
        const std::string name = std::to_string(int(megabits)) + " Mb/s";
        const size_t bytes = bytesFor(options, megabits);
        Figure paced("UDP, bottleneck of " + name + ": used at Timeout 0", "Mb/s", ">= 0.85");
        Figure fixed("  at Timeout 1", "Mb/s");
        std::vector<double> overflow;
        for (int run = 0; run < options.runs(); ++run) {
            const Use use = useOf(megabits, 0, bytes);
            paced.add(use.share * megabits, megabits);
            overflow.push_back(use.overflow);
            fixed.add(useOf(megabits, 1, std::min(bytes, fixedBytes)).share * megabits, megabits);
        }
        std::sort(overflow.begin(), overflow.end());
        paced.print();
        std::printf("%-50s %10.2f %10s %%\n", "  lost in its queue at Timeout 0",
            overflow[overflow.size() / 2] * 100, "");
        fixed.print();
    }
}

// Compares the rates of two transfers, from a second after the later start until one has finished.
void measureSharing(const Options &options)
{
    for (const double megabits : {1.0, 10.0, 50.0}) {
        Figure figure(
            "UDP, two transfers through " + std::to_string(int(megabits)) + " Mb/s: more to less",
            "Mb/s", "<= 2");
        for (int run = 0; run < options.runs(); ++run) {
            PathSettings path;
            path.bitsPerSecond = megabits * 1e6;
            Relay relay(path);
            Pair one(&relay, 0), two(&relay, 0);
            relay.start();
            one.put(bytesFor(options, megabits));
            two.put(bytesFor(options, megabits));
            one.start();
            std::this_thread::sleep_for(std::chrono::duration<double>(startOffsetSeconds * run));
            two.start();
            waitForFirst(relay, 0);
            waitForFirst(relay, 2);
            std::this_thread::sleep_for(std::chrono::duration<double>(settleSeconds));
            const double first = relay.bytes(0), second = relay.bytes(2), from = seconds();
            while (!one.hasArrived() && !two.hasArrived())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const double time = (seconds() - from) * 1e6 / 8;
            const double rates[] = {
                (relay.bytes(0) - first) / time, (relay.bytes(2) - second) / time};
            figure.add(std::max(rates[0], rates[1]), std::min(rates[0], rates[1]));
        }
        figure.print();
    }
}

// Measures from the file in the spool to the file at the peer, including the wait for the next
// scan.
void measureLoopback(const Options &options)
{
    const auto bytes = size_t(options.amount(4'000'000, 100'000));
    Figure figure("UDP, 4 MB without a relay, from spool to peer", "s", "<= 2");
    for (int run = 0; run < options.runs(); ++run) {
        Pair pair(nullptr, 0);
        pair.start();
        std::this_thread::sleep_for(std::chrono::milliseconds(200 * run + 500));
        pair.put(bytes);
        const double begin = seconds();
        waitUntil([&] { return pair.hasArrived(); }, "the file");
        figure.add(seconds() - begin, 1);
    }
    figure.print();
}

// Prints data for a plot: every 50 ms the rates of two transfers and the length of the queue. The
// second transfer starts a second after the first.
void trace(double megabits, double loss)
{
    PathSettings path;
    path.bitsPerSecond = megabits * 1e6;
    path.loss = loss;
    Relay relay(path);
    Pair one(&relay, 0), two(&relay, 0);
    relay.start();
    one.put(bytesFor(Options(0, nullptr), megabits));
    two.put(bytesFor(Options(0, nullptr), megabits) / 2);
    one.start();
    const double begin = waitForFirst(relay, 0);
    double last[] = {0, 0};
    constexpr double step = 0.05;
    for (int i = 1; !one.hasArrived() || !two.hasArrived(); ++i) {
        if (i == 1 / step)
            two.start();
        std::this_thread::sleep_for(std::chrono::duration<double>(begin + i * step - seconds()));
        std::printf("%.2f", i * step);
        for (const size_t road : {size_t(0), size_t(2)}) {
            const double bytes = relay.bytes(road);
            std::printf(" %.3f", (bytes - std::exchange(last[road / 2], bytes)) * 8 / step / 1e6);
        }
        std::printf(" %.1f\n", relay.queueNow(Relay::Forth) * 1e3);
    }
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc > 1 && std::strcmp(argv[1], "--trace") == 0) {
        trace(argc > 2 ? std::atof(argv[2]) : 10, argc > 3 ? std::atof(argv[3]) : 0);
        return 0;
    }
    const Options options(argc, argv);
    measureLoss(options);
    measureBottleneck(options);
    measureSharing(options);
    measureLoopback(options);
}
