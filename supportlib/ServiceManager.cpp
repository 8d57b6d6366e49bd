#include "ServiceManager.h"

#include "MainThread.h"

#include <QByteArray>

#include <systemd/sd-daemon.h>

using namespace std::chrono_literals;

namespace {

constexpr int keepEnvironment = 0; // later messages need its variables
constexpr auto leastInterval = 1s; // between two signs of life
constexpr char signOfLife[] = "WATCHDOG=1";
// Asks for 90 seconds more for a start that takes long.
constexpr char signOfStart[] = "EXTEND_TIMEOUT_USEC=90000000";

bool isReady = false;

void tell(const char *message)
{
    Q_ASSERT(isMainThread());
    std::ignore = ::sd_notify(keepEnvironment, message);
}

} // namespace

bool ServiceManager::isThere()
{
    return !qEnvironmentVariableIsEmpty("NOTIFY_SOCKET");
}

void ServiceManager::sayReady()
{
    isReady = true;
    tell("READY=1");
}

void ServiceManager::sayStopping()
{
    tell("STOPPING=1");
}

void ServiceManager::showStatus(const QString &line)
{
    tell("STATUS=" + line.toUtf8().replace('\n', ' '));
}

void ServiceManager::sayAlive()
{
    Q_ASSERT(isMainThread());
    using Clock = std::chrono::steady_clock;
    static Clock::time_point last;
    const Clock::time_point now = Clock::now();
    if (last != Clock::time_point() && now - last < leastInterval)
        return;
    last = now;
    tell(isReady ? signOfLife : signOfStart);
}

std::chrono::milliseconds ServiceManager::watchdogTime()
{
    uint64_t microseconds = 0;
    if (::sd_watchdog_enabled(keepEnvironment, &microseconds) <= 0)
        return 0ms;
    return std::chrono::milliseconds(microseconds / 1'000);
}
