#include "TickTimer.h"

#include <QThread>

#include <algorithm>
#include <sys/timerfd.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

timespec timeSpec(std::chrono::nanoseconds time)
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    return {whole.count(), (time - whole).count()};
}

} // namespace

TickTimer::TickTimer(QObject *parent)
    : QObject(parent)
    , descriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
    , notifier(QSocketNotifier::Read)
{
    if (descriptor < 0)
        qFatal("Can't make a timer: %s", qPrintable(qt_error_string()));
    notifier.setSocket(descriptor);
    connect(&notifier, &QSocketNotifier::activated, this, &TickTimer::readTicks);
}

TickTimer::~TickTimer()
{
    notifier.setEnabled(false);
    ::close(descriptor);
}

void TickTimer::start(std::chrono::milliseconds interval)
{
    Q_ASSERT(interval > 0ms);
    maxTicksDue = 1 + int(maxLateTime / interval);
    arm(interval, interval);
}

void TickTimer::startOnce(std::chrono::nanoseconds delay)
{
    maxTicksDue = 1;
    arm(std::max(delay, 1ns), 0ns); // 0 would disarm the kernel's timer
}

void TickTimer::stop()
{
    notifier.setEnabled(false);
    arm(0ns, 0ns);
}

void TickTimer::arm(std::chrono::nanoseconds first, std::chrono::nanoseconds interval)
{
    Q_ASSERT(QThread::currentThread() == thread());
    const itimerspec times = {timeSpec(interval), timeSpec(first)};
    ::timerfd_settime(descriptor, 0, &times, nullptr);
    if (first > 0ns)
        notifier.setEnabled(true);
}

void TickTimer::readTicks()
{
    quint64 ticksDue = 0;
    if (::read(descriptor, &ticksDue, sizeof(ticksDue)) != sizeof(ticksDue))
        return; // was rearmed after it had become readable
    Q_EMIT ticked(int(std::min(ticksDue, quint64(maxTicksDue))));
}
