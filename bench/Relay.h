#pragma once

#include "Kit.h"

#include <atomic>
#include <deque>
#include <memory>
#include <netinet/in.h>
#include <random>
#include <thread>

// A UDP socket on a free port of the loopback address.
Socket boundUdp(int &port);

// What a path does to the datagrams of either direction.
struct PathSettings
{
    double loss = 0; // share that is lost at random
    double delay = 0.025; // seconds
    double bitsPerSecond = 0; // of the bottleneck, counting the datagrams' bytes; 0 for none
    double queue = 0.1; // seconds that a datagram waits there at most; a longer queue overflows
    unsigned seed = 1; // of what is lost
};

// A path between ports of the loopback address, on a thread of its own. All transfers of one
// direction share the bottleneck.
class Relay
{
public:
    enum Direction { Forth, Back };

    explicit Relay(const PathSettings &settings);
    ~Relay();
    // The port of the path's one end; what is sent there comes out at the target. Not after
    // start().
    [[nodiscard]] int addRoad(Direction direction, int targetPort);
    void start();

    // So far; the bytes are those that the road has let through, the shares of all datagrams.
    [[nodiscard]] double bytes(size_t road) const { return double(roads[road]->bytes); }
    [[nodiscard]] double packets(size_t road) const { return double(roads[road]->packets); }
    [[nodiscard]] double overflowShare(Direction direction) const;
    [[nodiscard]] double queueNow(Direction direction) const; // seconds

private:
    struct Datagram
    {
        double due;
        size_t road;
        std::string bytes;
    };
    struct Link
    {
        double freeAt = 0; // of the bottleneck
        std::deque<Datagram> underWay; // in the order in which they are due
        std::atomic<double> busyUntil = 0;
        std::atomic<long> arrived = 0, overflowed = 0;
    };
    struct Road
    {
        Direction direction;
        sockaddr_in target;
        Socket socket;
        std::atomic<long> bytes = 0, packets = 0;
    };

    void run();
    void receive(size_t road);
    void admit(size_t road, std::string bytes);
    [[nodiscard]] double sendDue(); // gives the time of the next one

    const PathSettings path;
    std::vector<std::unique_ptr<Road>> roads;
    Link links[2];
    std::mt19937 random;
    std::uniform_real_distribution<double> share{0, 1};
    std::atomic<bool> isStopping = false;
    std::thread thread;
};
