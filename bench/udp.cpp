// Measures the transfer over UDP: ticks compared with the fewest that the rules allow, processor
// time a tick, and the pace of the real module.

#include "Relay.h"

#include "FixedPace.h"
#include "TTransferData.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <QTimerEvent>

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <deque>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int announcingTicks = int(FixedPace::ticks(0));
constexpr int groupPackets = FixedPace::groupPackets;
constexpr int groupTicks = groupPackets + 1;
constexpr int never = 86'400'000; // milliseconds: the engine never ticks by itself

// Writes a file of noise that makes `packets` data packets. Deflate stores noise in plain blocks.
void writePackets(const std::string &path, int packets)
{
    constexpr int blockBytes = 16'383; // deflate's smallest block; each adds 5 bytes
    const int whole = packets * int(Packet::maxPayload);
    const int bytes = whole - 6 - 5 * (whole / blockBytes + 2);
    writeNoise(path, size_t(std::max(bytes, 1)));
}

// --- two engines back to back ---

// Two engines. One sends files to the other, tick by tick, over a link that loses random packets.
class Link
{
public:
    Link(const RamFolder &folder, double lossShare, unsigned seed)
        : loss(lossShare)
        , random(seed)
    {
        to.SendPath(QString::fromStdString(folder.makeFolder("received") + '/'));
        QObject::connect(&from, &TFileTransfer::SendData, &from,
            [this](QByteArray &packet) { pass(packet, to); });
        QObject::connect(
            &to, &TFileTransfer::SendData, &to, [this](QByteArray &packet) { pass(packet, from); });
        QObject::connect(&from, &TFileTransfer::FileSended, &from, [this] { isDone = true; });
    }

    void open(const std::string &path)
    {
        isDone = false;
        from.OpenFile(QString::fromStdString(path));
    }
    void tick()
    {
        QTimerEvent event(0);
        from.timerEvent(&event);
    }
    int ticksToTheEnd()
    {
        int ticks = 0;
        for (; !isDone; ++ticks)
            tick();
        return ticks;
    }

    int packets = 0; // as announced for the file

private:
    void pass(QByteArray &packet, TFileTransfer &receiver)
    {
        const auto read = Packet::read(packet);
        if (read && read->kind == Packet::Data && read->number == 0)
            packets = InformationRecord::read(read->record)->count;
        if (loss > 0 && share(random) < loss)
            return;
        QByteArray copy(packet.constData(), packet.size());
        receiver.ReceiveData(copy.data(), int(copy.size()));
    }

    const double loss;
    std::mt19937 random;
    std::uniform_real_distribution<double> share{0, 1};
    TFileTransfer from{never, 0, nullptr}, to{never, 0, nullptr};
    bool isDone = false;
};

void measureCleanPath(const Options &options, const RamFolder &folder)
{
    for (const int wanted : {1, 100, options.amount(65'400, 1'000)}) {
        writePackets(folder.path("clean"), wanted);
        Link link(folder, 0, 1);
        link.open(folder.path("clean"));
        const int ticks = link.ticksToTheEnd();
        Figure figure("UDP clean path, a file of " + std::to_string(link.packets) + " packets",
            "ticks", "1.00 to 1.02");
        figure.add(ticks, double(FixedPace::ticks(link.packets)));
        figure.print();
    }
}

// Returns the microseconds of processor time a tick, for both engines together. Leaves out the
// opening of the file and its last group, which makes the receiver write it.
double tickCost(const RamFolder &folder, const std::string &file, int leastTotal)
{
    Link link(folder, 0, 1);
    double time = 0;
    int ticks = 0;
    while (ticks < leastTotal) {
        link.open(folder.path(file));
        for (int i = 0; i < announcingTicks; ++i)
            link.tick();
        const int timed = int(FixedPace::ticks(link.packets)) - announcingTicks - groupTicks;
        const double start = threadSeconds();
        for (int i = 0; i < timed; ++i)
            link.tick();
        time += threadSeconds() - start;
        ticks += timed;
        link.ticksToTheEnd();
    }
    return time / ticks * 1e6;
}

void measureTickCost(const Options &options, const RamFolder &folder)
{
    writePackets(folder.path("few"), 100);
    writePackets(folder.path("many"), options.amount(65'400, 1'000));
    const int total = options.amount(80'000, 1'000);
    Figure figure("UDP processor time a tick, 65,400 packets to 100", "us", "<= 1.5");
    for (int run = 0; run < options.runs(); ++run) {
        const double few = tickCost(folder, "few", total);
        figure.add(tickCost(folder, "many", total), few);
    }
    figure.print();
}

// --- loss ---

// Plays the rules on flags and counts alone, without bytes or an engine, and chooses the next
// packet in the simplest way. Counts the ticks until the sender knows that everything has arrived.
class Rules
{
public:
    Rules(int packets, double lossShare, unsigned seed)
        : held(size_t(packets) + 1)
        , acknowledged(size_t(packets) + 1)
        , sent(size_t(packets) + 1)
        , missing(packets + 1)
        , loss(lossShare)
        , random(seed)
    {
    }
    int ticksToTheEnd()
    {
        int ticks = 0, sinceRequest = 0;
        while (missing > 0) {
            ++ticks;
            if (++sinceRequest > (acknowledged[0] ? groupPackets : FixedPace::announcements)) {
                sinceRequest = 0;
                request();
            } else {
                sendOne(chosen());
            }
        }
        return ticks;
    }

private:
    bool arrives() { return share(random) >= loss; }
    // Returns the lowest number among the packets sent least often. The information record comes
    // first and alone.
    size_t chosen()
    {
        while (acknowledged[lowest])
            ++lowest;
        if (!acknowledged[0])
            return 0;
        for (size_t i = std::max(lowest, next); i < held.size(); ++i) {
            if (!acknowledged[i] && sent[i] < sent[lowest])
                return i;
        }
        return lowest;
    }
    void sendOne(size_t number)
    {
        next = number + 1; // all lower ones have been sent as often as this one
        ++sent[number];
        recent.push_back(number);
        if (recent.size() > size_t(Packet::maxListed))
            recent.pop_front();
        if (!arrives())
            return;
        if (number == 0) // the information record makes the receiver start afresh
            std::fill(held.begin(), held.end(), false);
        held[number] = true;
    }
    // Both copies of the request and both answers to each may be lost.
    void request()
    {
        for (int copy = 0; copy < 2; ++copy) {
            if (!arrives())
                continue;
            for (int answer = 0; answer < 2; ++answer) {
                if (arrives())
                    acknowledgeRecent();
            }
        }
    }
    void acknowledgeRecent()
    {
        for (const size_t number : recent) {
            if (held[number] && !acknowledged[number]) {
                acknowledged[number] = true;
                --missing;
            }
        }
        std::erase_if(recent, [&](size_t number) { return acknowledged[number]; });
    }

    std::vector<char> held, acknowledged;
    std::vector<int> sent;
    std::deque<size_t> recent;
    int missing;
    size_t lowest = 0, next = 0;
    const double loss;
    std::mt19937 random;
    std::uniform_real_distribution<double> share{0, 1};
};

void measureLoss(const Options &options, const RamFolder &folder)
{
    writePackets(folder.path("lossy"), options.amount(2'000, 200));
    for (const int percentage : {10, 33, 50}) {
        const double loss = percentage / 100.0;
        const std::string share = std::to_string(percentage) + " % lost each way";
        Figure rules("UDP, " + share + ": ticks against the rules", "ticks", "1.00");
        Figure bound("  against one who knows what has arrived", "ticks");
        for (unsigned run = 0; run < unsigned(options.amount(20, 2)); ++run) {
            Link link(folder, loss, run);
            link.open(folder.path("lossy"));
            const int ticks = link.ticksToTheEnd();
            const int expected = Rules(link.packets, loss, run + 1'000).ticksToTheEnd();
            rules.add(ticks, expected);
            bound.add(ticks, link.packets / (1 - loss) * groupTicks / groupPackets);
        }
        rules.print();
        bound.print();
    }
}

// --- the pace of the module ---

// Returns how often a timer of 1 ms fires in an otherwise idle event loop.
double countQtTimer(double time)
{
    double fired = 0;
    QEventLoop loop;
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, &loop, [&] { ++fired; });
    timer.start(1);
    QTimer::singleShot(int(time * 1e3), Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
    return fired;
}

// The peer of a module in UDP mode: an engine on a bare socket, with a kernel timer for its ticks.
class PeerOfModule
{
public:
    explicit PeerOfModule(const RamFolder &folder)
    {
        engine.SendPath(QString::fromStdString(folder.makeFolder("received") + '/'));
        QObject::connect(
            &engine, &TFileTransfer::SendData, &engine, [this](const QByteArray &packet) {
                ::sendto(socket.get(), packet.constData(), size_t(packet.size()), 0,
                    reinterpret_cast<const sockaddr *>(&sender), sizeof(sender));
            });
    }

    // Counts the module's ticks. Each tick is one data packet or two status requests.
    double count(double time)
    {
        double ticks = 0;
        pollfd wait = {socket.get(), POLLIN, 0};
        for (const double end = seconds() + time; seconds() < end;) {
            ::poll(&wait, 1, 10);
            ticks += receive();
        }
        return ticks;
    }

    int port = 0;

private:
    double receive()
    {
        double ticks = 0;
        char bytes[512];
        socklen_t size = sizeof(sender);
        ssize_t count;
        while ((count = ::recvfrom(socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT,
                    reinterpret_cast<sockaddr *>(&sender), &size))
            > 0) {
            const auto packet = Packet::read(QByteArrayView(bytes, count));
            if (packet)
                ticks += packet->kind == Packet::StatusRequest ? 0.5 : 1;
            engine.ReceiveData(bytes, int(count));
        }
        return ticks;
    }

    Socket socket = boundUdp(port);
    sockaddr_in sender = {};
    TFileTransfer engine{never, 0, nullptr};
};

void measurePace(const Options &options)
{
    const RamFolder folder;
    folder.makeFolder("spool");
    writePackets(folder.path("spool/file"), 60'000);
    PeerOfModule peer(folder);
    int localPort = 0;
    boundUdp(localPort); // closed at once, so that the module can bind it
    const Module module(folder,
        "Protocol=UDP\nTimeout=1\nPort=" + std::to_string(peer.port)
            + "\nLocalPort=" + std::to_string(localPort) + '\n');
    waitUntil([&] { return peer.count(0.1) > 10; }, "packets of the module");
    Figure pace("UDP, a Timeout of 1 ms: ticks to Qt's timer", "1/s");
    Figure kernel("  against one for every millisecond", "1/s", ">= 0.98");
    const double time = options.amount(3, 1);
    for (int run = 0; run < options.runs(); ++run) {
        double fired = 0;
        std::thread probe([&] { fired = countQtTimer(time); });
        const double ticks = peer.count(time);
        probe.join();
        pace.add(ticks / time, fired / time);
        kernel.add(ticks / time, 1'000);
    }
    pace.print();
    kernel.print();
}

} // namespace

int main(int argc, char *argv[])
{
    const Options options(argc, argv);
    QCoreApplication application(argc, argv);
    const RamFolder folder;
    measureCleanPath(options, folder);
    measureTickCost(options, folder);
    measureLoss(options, folder);
    measurePace(options);
}
