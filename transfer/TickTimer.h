#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <chrono>

// Ticks at the kernel's pace. A timer of Qt rounds each wait up to whole milliseconds and forgets
// what came late; this one counts how many ticks are due and makes up for late ones, but not for so
// many that they would leave as one long burst.
//
// Owner:   whoever connects ticked(). Stopped until it is started; stopped it costs nothing.
// Thread:  the one that constructed it, which needs an event loop.
// Errors:  without a descriptor left it ends the process: nothing could ever be sent.
class TickTimer : public QObject
{
    Q_OBJECT
public:
    // Of how long a delay the ticks are made up for at most. At a tick each millisecond the burst
    // still fits the receive buffer that a kernel grants unless asked for more.
    static constexpr std::chrono::milliseconds maxLateTime{100};

    explicit TickTimer(QObject *parent = nullptr);
    ~TickTimer() override;

    // Ticks every interval, which is not 0, from one interval after now on.
    void start(std::chrono::milliseconds interval);
    // Ticks once, after the delay; one that is not positive means at once.
    void startOnce(std::chrono::nanoseconds delay);
    void stop();

Q_SIGNALS:
    // So many ticks are due now, one at least.
    void ticked(int count);

private:
    void arm(std::chrono::nanoseconds first, std::chrono::nanoseconds interval);
    void readTicks();

    const int descriptor;
    QSocketNotifier notifier;
    int maxDue = 1;
};
