// Measures an idle module: its wake-ups a second, compared with those that its timers need, and its
// processor time.

#include "Kit.h"

#include <cstdio>
#include <memory>
#include <thread>

namespace {

constexpr double passSeconds = 5; // between two passes of the bus, so each window holds one
constexpr double settleSeconds = 6; // the first pass and its log lines are over by then

struct Idle
{
    std::string title;
    std::string mainLines;
    double timersPerSecond; // what the settings ask for
};

// One idle module, watched window by window.
class Watched
{
public:
    explicit Watched(const Idle &idle)
        : wakeUps(idle.title + ", wake-ups against its timers", "1/s", "about 1")
        , expected(idle.timersPerSecond)
        , mode(idle.title)
        , module((folder.makeFolder("spool"), folder), idle.mainLines)
    {
    }
    void begin()
    {
        wokenBefore = module.wakeUps();
        usedBefore = module.processorSeconds();
    }
    void end(double time)
    {
        wakeUps.add((module.wakeUps() - wokenBefore) / time, expected);
        used += module.processorSeconds() - usedBefore;
        watched += time;
    }
    void print() const
    {
        wakeUps.print();
        std::printf("%-50s %10.4f %10s %s\n", "  processor time, share of one core",
            used / watched * 100, "", "%");
    }

private:
    Figure wakeUps;
    const double expected;
    const std::string mode;
    const RamFolder folder;
    const Module module;
    double wokenBefore = 0, usedBefore = 0;
    double used = 0, watched = 0;
};

void pause(double time)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(time));
}

} // namespace

int main(int argc, char *argv[])
{
    const Options options(argc, argv);
    const Listener peer;
    const std::string port = "Port=" + std::to_string(peer.port()) + '\n';
    const double pass = 1 / passSeconds, scan = 1;
    const Idle modes[] = {
        {"idle, TCP, connected", "Protocol=TCP\nReconnectionTimeout=20\n" + port, pass + 1.0 / 20},
        {"idle, UDP, Timeout 1000 ms",
            "Protocol=UDP\nTimeout=1000\nReconnectionTimeout=20\nLocalPort=0\n" + port,
            pass + 1.0 / 20 + scan},
        {"idle, UDP, Timeout 0",
            "Protocol=UDP\nTimeout=0\nReconnectionTimeout=20\nLocalPort=0\n" + port,
            pass + 1.0 / 20 + scan}};
    std::vector<std::unique_ptr<Watched>> watched;
    for (const Idle &mode : modes)
        watched.push_back(std::make_unique<Watched>(mode));
    const Socket link = peer.accept();

    pause(settleSeconds);
    const double window = options.amount(2, 1) * passSeconds;
    for (int run = 0; run < options.runs(); ++run) {
        for (const auto &module : watched)
            module->begin();
        pause(window);
        for (const auto &module : watched)
            module->end(window);
    }
    for (const auto &module : watched)
        module->print();
}
