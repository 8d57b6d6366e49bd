#pragma once

#include "Status.h"

#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

class TConnector;

// Reports the module's state to the service manager, and to a status file if the settings name one.
//
// Replaces the status file as a whole: every ten seconds if its content has changed, and once more
// at the end. Counts the files in the spool on a thread of its own, because that may take long.
//
// Errors:  logs the first of consecutive failures to write the status file.
class Monitor : public QObject
{
    Q_OBJECT
public:
    explicit Monitor(const TConnector &bus);
    ~Monitor() override;

    // The owner fills in what never changes before start().
    Status status;
    void setStatusFile(const QString &path) { statusFile = path; }

    // Begins to report. Calls `fillInCounters` before each report for the figures that change.
    void start(const SpoolDirectory &spool, std::function<void(Status &)> fillInCounters);
    void linkUp();
    void linkDown();
    // Shows the text as the last error.
    void noteError(const QString &text);
    // Writes the last status before the process ends.
    void stop();

private:
    void tick();
    void tellServiceManager();
    [[nodiscard]] QString busLine() const;
    [[nodiscard]] QString statusLine() const;
    [[nodiscard]] bool isReady() const;
    void beginCount();
    void takeCount();
    [[nodiscard]] bool isCountDue();
    void refresh();
    void writeFile();

    const TConnector &bus;
    std::optional<SpoolDirectory> spool; // from start() on
    QString statusFile; // empty for none
    std::function<void(Status &)> fillIn;
    QTimer reportTimer;
    QTimer aliveTimer;

    bool isReadyReported = false;
    QString reportedStatusLine;
    QByteArray writtenPage;
    bool isWriteFailureLogged = false;
    qint64 refreshedAt = 0; // milliseconds since the epoch

    using Clock = std::chrono::steady_clock;
    Clock::time_point countBegan;
    Clock::duration countTook{0};
    // The spool directory's modification time at the last count, in nanoseconds. 0 if it may have
    // changed unnoticed since.
    qint64 countedModification = 0;

    std::mutex mutex;
    SpoolCensus counted; // guarded by mutex
    std::jthread countThread; // the last member, so that it ends before what it uses
};
