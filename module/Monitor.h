#pragma once

#include "Status.h"

#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

class TConnector;

// Shows how the module is: to the service manager, and in a status file if the settings name one.
//
// The file is replaced whole every ten seconds while something in it changes, and at the end. What
// waits in the spool is counted by a thread of its own, which takes as long as it takes.
//
// Owner:   Morvane. It tells of the link and counts what it does.
// Thread:  main thread.
// Errors:  never throws. A status file that cannot be written is named once in the log.
class Monitor : public QObject
{
    Q_OBJECT
public:
    explicit Monitor(const TConnector &bus);
    ~Monitor() override;

    // To be filled in before the start, but for what changes.
    Status status;
    void setSpool(const QString &directory) { spool = directory; }
    void setStatusFile(const QString &path) { file = path; }

    // The transport has been started. The counters are asked for when they are shown.
    void start(std::function<void(Status &)> fillInCounters);
    void linkUp();
    void linkDown();
    void error(const QString &text);
    // The process is about to end.
    void stop();

private:
    void tick();
    void tellServiceManager();
    [[nodiscard]] QString busLine() const;
    [[nodiscard]] QString statusLine() const;
    [[nodiscard]] bool isReady() const;
    void count();
    Q_INVOKABLE void takeCount();
    [[nodiscard]] bool isCountDue();
    void refresh();
    void writeFile();

    const TConnector &bus;
    QString spool;
    QString file; // empty: none
    std::function<void(Status &)> fillIn;
    QTimer timer;
    QTimer aliveTimer;

    bool isSaidReady = false;
    QString saidStatus;
    QByteArray written; // into the file
    bool saidUnwritable = false;
    qint64 refreshedAt = 0; // milliseconds since the epoch

    using Clock = std::chrono::steady_clock;
    Clock::time_point countBegan;
    Clock::duration countTook{0};
    qint64 countedState = 0; // of the spool directory, see isCountDue()
    std::mutex mutex; // guards the next
    SpoolCensus counted;
    std::jthread counter; // ends before what it uses
};
