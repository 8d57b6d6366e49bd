#include "SpoolKeeper.h"

#include "FileTime.h"
#include "QuietSpool.h"

#include <QThread>

#include <cerrno>
#include <chrono>

using namespace std::chrono_literals;

namespace {

constexpr auto retryInterval = 5s;
constexpr auto tidyInterval = 31s; // by then the lock of a killed writer counts as stale

} // namespace

SpoolKeeper::SpoolKeeper(const SpoolDirectory &spoolDirectory, MessageSink messageSink)
    : spool(spoolDirectory)
    , report(std::move(messageSink))
    , sentFolder(spool)
    , diskFlusher(
          spool, [this] { return sentFolder.journal().descriptor(); },
          [this] { return holdsFiles(); })
    , leftovers(spool, [this](const QString &text) { pendingReports.append(text); })
    , lock(spool, [this](const QString &text) { pendingReports.append(text); })
{
    retryTimer.setSingleShot(true);
    connect(&retryTimer, &QTimer::timeout, this, &SpoolKeeper::retry);
    connect(&diskFlusher, &Flusher::failed, this, [this](const QString &reason) {
        report(tr("Can't bring the files of %1 to the disk: %2").arg(spool.path(), reason));
    });
    connect(&diskFlusher, &Flusher::recovered, this,
        [this] { report(tr("The files of %1 are brought to the disk again").arg(spool.path())); });
}

SpoolKeeper::~SpoolKeeper()
{
    leftovers.requestStop();
    waitForRecovery();
}

// Creates our folder before anything else: after a power cut, all files that are younger than its
// journal are in doubt.
void SpoolKeeper::start()
{
    Q_ASSERT(QThread::currentThread() == thread());
    const bool isUnderWay = worker.joinable();
    if (isUnderWay)
        return;
    startTime = FileTime::now();
    std::ignore = sentFolder.open();
    beginRecovery();
}

void SpoolKeeper::stop()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (worker.joinable()) {
        leftovers.requestStop();
        waitForRecovery();
        diskFlusher.filesWritten(); // what was given back is not known to be on the disk
    }
    if (!diskFlusher.isPending() || !holdsFiles())
        sentFolder.close();
}

bool SpoolKeeper::holdsFiles() const
{
    return !sentFolder.isEmpty() || !QuietSpool(spool).isQuiet();
}

SpoolDirectory::WriteResult SpoolKeeper::write(const QString &name, const QByteArray &content)
{
    Q_ASSERT(QThread::currentThread() == thread());
    const SpoolDirectory::WriteResult result = spool.write(name, content, report);
    if (result == SpoolDirectory::WriteResult::Written)
        diskFlusher.filesWritten();
    return result;
}

void SpoolKeeper::flushFilesOfOthers()
{
    const std::optional<SpoolDirectory::Mark> mark = spool.mark(QStringLiteral("."));
    if (mark && std::exchange(lastChange, mark->modified) != mark->modified)
        diskFlusher.filesWritten();
}

// --- giving back ---

bool SpoolKeeper::giveBack()
{
    Q_ASSERT(QThread::currentThread() == thread());
    const bool wereStranded = std::exchange(hasStrandedRecords, !sentFolder.giveAllBack());
    const int reason = errno;
    diskFlusher.filesWritten();
    if (hasStrandedRecords && !wereStranded) {
        report(tr("Records cannot go back into %1 yet: %2")
                   .arg(spool.path(), qt_error_string(reason)));
        retryTimer.start(retryInterval);
    }
    return !hasStrandedRecords;
}

void SpoolKeeper::retry()
{
    if (hasStrandedRecords && giveBack())
        Q_EMIT gaveBack();
    if (!worker.joinable() && (hasLeftovers || hasUnfinishedFiles))
        beginRecovery();
    else if (hasStrandedRecords)
        retryTimer.start(retryInterval);
}

// --- what killed processes have left ---

void SpoolKeeper::beginRecovery()
{
    if (worker.joinable())
        return;
    worker =
        std::thread([this, own = sentFolder.name(), journal = sentFolder.journal().descriptor()] {
            recover(own, journal);
            QMetaObject::invokeMethod(
                this, [this] { endRecovery(); }, Qt::QueuedConnection);
        });
}

// Runs on the worker thread. What earlier processes have written since the system started may not
// be on the disk yet, so our journal notes the earliest time up to which one of them knew it to be.
void SpoolKeeper::recover(const QByteArray &own, int journal)
{
    hasLeftovers = !leftovers.giveBack(own, [&](qint64 lastSync) {
        if (!hasRecovered)
            std::ignore = Journal::noteSynced(journal, std::min(lastSync, startTime));
    });
    hasUnfinishedFiles = !spool.removeLeftovers(lock);
}

void SpoolKeeper::endRecovery()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!worker.joinable())
        return; // the process ends
    waitForRecovery();
    diskFlusher.filesWritten();
    if (hasLeftovers || hasStrandedRecords)
        retryTimer.start(retryInterval);
    else if (hasUnfinishedFiles)
        retryTimer.start(tidyInterval);
    if (!std::exchange(hasRecovered, true))
        Q_EMIT ready();
    else if (!hasLeftovers)
        Q_EMIT gaveBack();
}

void SpoolKeeper::waitForRecovery()
{
    if (worker.joinable())
        worker.join();
    const QStringList texts = std::exchange(pendingReports, {});
    for (const QString &text : texts)
        report(text);
}
