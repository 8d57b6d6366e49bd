#include "Monitor.h"

#include "FileTime.h"
#include "ServiceManager.h"
#include "TConnector.h"
#include "TLog.h"
#include "WholeFile.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QThread>

#include <sys/stat.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto reportInterval = 10s;
// After this time the service counts as started even if bus servers are still absent.
constexpr auto longestStart = 60s;
// Signs of life sent in the time that the service manager waits for one.
constexpr int signsInTime = 3;
// The pause after a count of the spool, in durations of that count: counting takes at most a
// twentieth of the time.
constexpr int restFactor = 20;
// Independent of the umask: the folder decides who may read the status file.
constexpr mode_t statusFileMode = 0644;

qint64 seconds()
{
    return QDateTime::currentSecsSinceEpoch();
}

QString quoted(const QStringList &names)
{
    return u'"' + names.join(u"\", \""_s) + u'"';
}

} // namespace

Monitor::Monitor(const TConnector &connector)
    : bus(connector)
{
    connect(&bus, &TConnector::passEnded, this, &Monitor::tellServiceManager);
    connect(&reportTimer, &QTimer::timeout, this, &Monitor::tick);
    connect(&aliveTimer, &QTimer::timeout, this, &ServiceManager::sayAlive);
    TLog::SetObserver([this](const QString &text) { noteError(text); });
}

Monitor::~Monitor()
{
    TLog::SetObserver({});
}

void Monitor::start(
    const SpoolDirectory &spoolDirectory, std::function<void(Status &)> fillInCounters)
{
    Q_ASSERT(thread() == QThread::currentThread());
    spool = spoolDirectory;
    fillIn = std::move(fillInCounters);
    if (status.startedAt == 0)
        status.startedAt = status.linkChangedAt = seconds();
    refreshedAt = QDateTime::currentMSecsSinceEpoch();
    if (statusFile.isEmpty() && !ServiceManager::isThere())
        return;
    if (const auto patience = ServiceManager::watchdogTime(); patience > 0ms)
        aliveTimer.start(patience / signsInTime);
    reportTimer.start(reportInterval);
    tick();
}

void Monitor::linkUp()
{
    Q_ASSERT(thread() == QThread::currentThread());
    status.isLinkUp = true;
    status.linkChangedAt = seconds();
    tellServiceManager();
    pLog->JournalOnly(tr("The link to %1 is up").arg(status.peer), TLog::Priority::Notice);
}

void Monitor::linkDown()
{
    Q_ASSERT(thread() == QThread::currentThread());
    if (!status.isLinkUp)
        return;
    status.isLinkUp = false;
    status.linkChangedAt = seconds();
    tellServiceManager();
    pLog->JournalOnly(tr("The link to %1 is down").arg(status.peer), TLog::Priority::Warning);
}

void Monitor::noteError(const QString &text)
{
    Q_ASSERT(thread() == QThread::currentThread());
    status.lastError = text;
    status.lastErrorAt = seconds();
}

void Monitor::stop()
{
    Q_ASSERT(thread() == QThread::currentThread());
    ServiceManager::sayStopping();
    countThread = {};
    status.isRunning = false;
    status.isLinkUp = false;
    refresh();
    writeFile();
}

void Monitor::tick()
{
    if (isCountDue())
        return beginCount(); // takeCount() reports when it ends
    refresh();
    writeFile();
    tellServiceManager();
}

// --- the service manager ---

// The module is ready when it listens on the bus, or at once if it has no bus name. If its bus
// servers stay absent it still carries its spool, so after a while it counts as ready all the same:
// it must not hold up the start of the whole system.
bool Monitor::isReady() const
{
    return bus.GetServerName().isEmpty() || bus.isListening()
        || seconds() - status.startedAt >= std::chrono::seconds(longestStart).count();
}

void Monitor::tellServiceManager()
{
    if (!ServiceManager::isThere())
        return;
    ServiceManager::sayAlive();
    const QString line = statusLine();
    if (line != reportedStatusLine)
        ServiceManager::showStatus(line);
    reportedStatusLine = line;
    if (!isReadyReported && isReady()) {
        isReadyReported = true;
        ServiceManager::sayReady();
    }
}

// Returns what the module still waits for on the bus; empty if nothing.
QString Monitor::busLine() const
{
    if (bus.GetServerName().isEmpty())
        return {};
    const QStringList absent = bus.absentServers();
    if (bus.isListening())
        return absent.isEmpty() ? QString() : tr("not connected to %1").arg(quoted(absent));
    if (!absent.isEmpty())
        return tr("waiting for %1 on the bus").arg(quoted(absent));
    const QString admin = bus.absentAdmin();
    return admin.isEmpty() ? tr("joining the bus")
                           : tr("waiting for the administration server %1").arg(admin);
}

QString Monitor::statusLine() const
{
    QStringList parts;
    if (const QString line = busLine(); !line.isEmpty())
        parts.append(line);
    if (status.protocol == u"TCP")
        parts.append(status.isLinkUp ? tr("link up") : tr("link down"));
    else if (status.protocol != u"UDP")
        parts.append(tr("no transport, records are dropped"));
    parts.append(tr("%1 waiting").arg(status.waiting.files));
    return parts.join(u", "_s);
}

// --- what waits ---

bool Monitor::isCountDue()
{
    struct stat info;
    const Clock::time_point now = Clock::now();
    if (countThread.joinable() || now - countBegan < restFactor * countTook
        || ::stat(spool->encodedPath().constData(), &info) != 0)
        return false;
    const qint64 modification = FileTime::of(info.st_mtim);
    if (modification == countedModification)
        return false;
    countedModification = FileTime::isSettled(modification) ? modification : 0;
    countBegan = now;
    return true;
}

void Monitor::beginCount()
{
    countThread = std::jthread([this, directory = *spool](std::stop_token stop) {
        const SpoolCensus census = SpoolCensus::take(directory, stop);
        const std::lock_guard lock(mutex);
        counted = census;
        QMetaObject::invokeMethod(
            this, [this] { takeCount(); }, Qt::QueuedConnection);
    });
}

void Monitor::takeCount()
{
    Q_ASSERT(thread() == QThread::currentThread());
    countThread = {};
    countTook = Clock::now() - countBegan;
    {
        const std::lock_guard lock(mutex);
        status.waiting = counted;
    }
    refresh();
    writeFile();
    tellServiceManager();
}

// --- the status file ---

void Monitor::refresh()
{
    Q_ASSERT(fillIn);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const qint64 sentBefore = status.udp ? status.udp->bytesSent : 0;
    fillIn(status);
    if (status.udp && now > refreshedAt)
        status.udpRate =
            double(status.udp->bytesSent - sentBefore) * 1'000 / double(now - refreshedAt);
    refreshedAt = now;
}

void Monitor::writeFile()
{
    if (statusFile.isEmpty())
        return;
    const QByteArray page = status.toPrometheus(seconds());
    if (page == writtenPage)
        return;
    WholeFile whole(statusFile);
    const bool isWritten = whole.write(page) && whole.setMode(statusFileMode) && whole.commit();
    if (!isWritten && !isWriteFailureLogged)
        pLog->Message(tr("Can't write the status file %1: %2").arg(statusFile, qt_error_string()),
            TLog::Priority::Warning);
    isWriteFailureLogged = !isWritten;
    writtenPage = isWritten ? page : QByteArray();
}
