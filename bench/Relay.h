#pragma once

#include "Kit.h"

#include <atomic>
#include <deque>
#include <memory>
#include <netinet/in.h>
#include <random>
#include <thread>

// Returns a UDP socket bound to a free port of the loopback address, and sets `port`.
Socket boundUdp(int &port);

// What a path does to datagrams, in each direction.
struct PathSettings
{
    double loss = 0; // share of the datagrams, lost at random
    double delay = 0.025; // seconds
    double bitsPerSecond = 0; // of datagram bytes through the bottleneck; 0 for no bottleneck
    double queue = 0.1; // seconds; a datagram that would wait longer at the bottleneck is dropped
    unsigned seed = 1; // of the random losses
};

// Relays datagrams between ports of the loopback address, on a thread of its own. All transfers in
// one direction share the bottleneck.
class Relay
{
public:
    enum Direction { Forth, Back };

    explicit Relay(const PathSettings &settings);
    ~Relay();
    // Returns a port whose datagrams are relayed to `targetPort`. Call it before start().
    [[nodiscard]] int addRoad(Direction direction, int targetPort);
    void start();

    // Totals since start(). Bytes and packets count what the road has delivered. The share is that
    // of all datagrams in one direction.
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
        double freeAt = 0; // when the bottleneck has sent all that waits
        std::deque<Datagram> underWay; // sorted by `due`
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
    // Returns when the next datagram is due.
    [[nodiscard]] double sendDue();

    const PathSettings path;
    std::vector<std::unique_ptr<Road>> roads;
    Link links[2];
    std::mt19937 random;
    std::uniform_real_distribution<double> share{0, 1};
    std::atomic<bool> isStopping = false;
    std::thread thread;
};
