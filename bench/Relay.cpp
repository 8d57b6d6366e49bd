#include "Relay.h"

#include <algorithm>
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr double longestWait = 0.05; // seconds between two checks whether to stop
constexpr int bufferBytes = 4 << 20; // large enough that only the path loses datagrams

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));
    return address;
}

} // namespace

Socket boundUdp(int &port)
{
    Socket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    auto *plain = reinterpret_cast<sockaddr *>(&address);
    check(::bind(socket.get(), plain, size), "bind");
    ::getsockname(socket.get(), plain, &size);
    port = ntohs(address.sin_port);
    return socket;
}

Relay::Relay(const PathSettings &settings)
    : path(settings)
    , random(settings.seed)
{
}

Relay::~Relay()
{
    isStopping = true;
    if (thread.joinable())
        thread.join();
}

int Relay::addRoad(Direction direction, int targetPort)
{
    int port = 0;
    roads.push_back(std::make_unique<Road>(direction, loopback(targetPort), boundUdp(port)));
    ::setsockopt(roads.back()->socket.get(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof(int));
    return port;
}

void Relay::start()
{
    thread = std::thread([this] { run(); });
}

double Relay::overflowShare(Direction direction) const
{
    const Link &link = links[direction];
    return double(link.overflowed) / double(std::max(link.arrived.load(), 1L));
}

double Relay::queueNow(Direction direction) const
{
    return std::max(links[direction].busyUntil - seconds(), 0.0);
}

void Relay::run()
{
    std::vector<pollfd> waits;
    for (const auto &road : roads)
        waits.push_back({road->socket.get(), POLLIN, 0});
    while (!isStopping) {
        const double wait = std::clamp(sendDue() - seconds(), 0.0, longestWait);
        const timespec time = {0, long(wait * 1e9)};
        ::ppoll(waits.data(), waits.size(), &time, nullptr);
        for (size_t i = 0; i < roads.size(); ++i) {
            if (waits[i].revents != 0)
                receive(i);
        }
    }
}

void Relay::receive(size_t road)
{
    char bytes[2048];
    for (int i = 0; i < 64; ++i) { // then those that are due have their turn
        const ssize_t count = ::recv(roads[road]->socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        if (count < 0)
            return;
        admit(road, std::string(bytes, size_t(count)));
    }
}

void Relay::admit(size_t road, std::string bytes)
{
    Link &link = links[roads[road]->direction];
    ++link.arrived;
    if (share(random) < path.loss)
        return;
    const double now = seconds();
    double leaves = now;
    if (path.bitsPerSecond > 0) {
        if (link.freeAt - now > path.queue) {
            ++link.overflowed;
            return;
        }
        leaves = std::max(link.freeAt, now) + double(bytes.size()) * 8 / path.bitsPerSecond;
        link.busyUntil = link.freeAt = leaves;
    }
    roads[road]->bytes += long(bytes.size());
    ++roads[road]->packets;
    link.underWay.push_back({leaves + path.delay, road, std::move(bytes)});
}

double Relay::sendDue()
{
    const double now = seconds();
    double next = now + longestWait;
    for (Link &link : links) {
        for (; !link.underWay.empty() && link.underWay.front().due <= now;
             link.underWay.pop_front()) {
            const Datagram &datagram = link.underWay.front();
            const Road &road = *roads[datagram.road];
            ::sendto(road.socket.get(), datagram.bytes.data(), datagram.bytes.size(), 0,
                reinterpret_cast<const sockaddr *>(&road.target), sizeof(road.target));
        }
        if (!link.underWay.empty())
            next = std::min(next, link.underWay.front().due);
    }
    return next;
}
