#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <chrono>

// Ticks precisely, driven by a kernel timer. A QTimer rounds each wait up to whole milliseconds and
// never catches up. This timer counts the ticks that are due and makes up for late ones, up to a
// limit that prevents long bursts. A stopped timer costs nothing.
//
// Thread:  the one that constructed it, which needs an event loop.
// Errors:  the constructor ends the process if no descriptor is left: nothing could ever be sent.
class TickTimer : public QObject
{
    Q_OBJECT
public:
    // Ticks are made up for at most this much delay. With one tick a millisecond, the resulting
    // burst still fits into the kernel's default receive buffer.
    static constexpr std::chrono::milliseconds maxLateTime{100};

    explicit TickTimer(QObject *parent = nullptr);
    ~TickTimer() override;

    // Ticks every interval, first after one interval. interval must be positive.
    void start(std::chrono::milliseconds interval);
    // Ticks once after delay, or at once if delay is not positive.
    void startOnce(std::chrono::nanoseconds delay);
    void stop();

Q_SIGNALS:
    // count ticks are due now, at least one.
    void ticked(int count);

private:
    void arm(std::chrono::nanoseconds first, std::chrono::nanoseconds interval);
    void readTicks();

    const int descriptor;
    QSocketNotifier notifier;
    int maxTicksDue = 1;
};
