#include "SpoolKeeper.h"

#include "QuietSpool.h"

#include <chrono>
#include <ctime>

using namespace std::chrono_literals;

namespace {

constexpr auto retryInterval = 5s; // for what a full disk keeps out of the spool
constexpr auto tidyInterval = 31s; // by then a lock that a killed writer has left counts as stale

qint64 timeNow()
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return qint64(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

} // namespace

SpoolKeeper::SpoolKeeper(const QString &path, MessageSink messageSink)
    : spool(path)
    , report(std::move(messageSink))
    , folder(path)
    , disk(
          path, [this] { return folder.journal().descriptor(); }, [this] { return holdsFiles(); })
    , leftovers(path, [this](const QString &text) { remarks.append(text); })
    , lock(path, [this](const QString &text) { remarks.append(text); })
{
    retry.setSingleShot(true);
    connect(&retry, &QTimer::timeout, this, &SpoolKeeper::tryAgain);
    connect(&disk, &Flusher::failed, this, [this](const QString &reason) {
        report(tr("Can't bring the files of %1 to the disk: %2").arg(spool.path(), reason));
    });
    connect(&disk, &Flusher::recovered, this,
        [this] { report(tr("The files of %1 are brought to the disk again").arg(spool.path())); });
}

SpoolKeeper::~SpoolKeeper()
{
    leftovers.end();
    waitForRound();
}

// Creates our folder before anything else: after a power cut, all files that are younger than its
// journal are in doubt.
void SpoolKeeper::start()
{
    if (worker.joinable())
        return; // a start is under way
    startTime = timeNow();
    std::ignore = folder.open();
    beginRound();
}

void SpoolKeeper::stop()
{
    if (worker.joinable()) {
        leftovers.end();
        waitForRound();
        disk.filesWritten(); // what was given back is not known to be on the disk
    }
    if (!disk.isPending() || !holdsFiles())
        folder.close();
}

bool SpoolKeeper::holdsFiles() const
{
    return !folder.isEmpty() || !QuietSpool(spool.path()).look();
}

SpoolDirectory::WriteResult SpoolKeeper::write(const QString &name, const QByteArray &content)
{
    const SpoolDirectory::WriteResult result = spool.write(name, content, report);
    if (result == SpoolDirectory::WriteResult::Written)
        disk.filesWritten();
    return result;
}

void SpoolKeeper::lookForFiles()
{
    const std::optional<SpoolDirectory::Mark> mark = spool.mark(QStringLiteral("."));
    if (mark && std::exchange(lastChange, mark->modified) != mark->modified)
        disk.filesWritten();
}

// --- giving back ---

bool SpoolKeeper::giveBack()
{
    const bool wasStranded = std::exchange(hasStranded, !folder.giveAllBack());
    disk.filesWritten();
    if (hasStranded && !wasStranded) {
        report(tr("Records cannot go back into %1 yet: %2").arg(spool.path(), qt_error_string()));
        retry.start(retryInterval);
    }
    return !hasStranded;
}

void SpoolKeeper::tryAgain()
{
    if (hasStranded && giveBack())
        Q_EMIT gaveBack();
    if (!worker.joinable() && (hasLeftovers || hasLeftFiles))
        beginRound();
    else if (hasStranded)
        retry.start(retryInterval);
}

// --- what killed processes have left ---

void SpoolKeeper::beginRound()
{
    if (worker.joinable())
        return;
    worker = std::thread([this, own = folder.name(), journal = folder.journal().descriptor()] {
        round(own, journal);
        QMetaObject::invokeMethod(this, "endRound", Qt::QueuedConnection);
    });
}

// Runs on the other thread. What earlier processes of the running system have written may not be on
// the disk yet either.
void SpoolKeeper::round(const QByteArray &own, int journal)
{
    hasLeftovers = !leftovers.giveBack(own, [&](qint64 lastSync) {
        if (!hasStarted)
            std::ignore = Journal::noteSynced(journal, std::min(lastSync, startTime));
    });
    hasLeftFiles = !spool.removeLeftovers(lock);
}

void SpoolKeeper::endRound()
{
    if (!worker.joinable())
        return; // the process ends
    waitForRound();
    disk.filesWritten();
    if (hasLeftovers || hasStranded)
        retry.start(retryInterval);
    else if (hasLeftFiles)
        retry.start(tidyInterval);
    if (!std::exchange(hasStarted, true))
        Q_EMIT ready();
    else if (!hasLeftovers)
        Q_EMIT gaveBack();
}

void SpoolKeeper::waitForRound()
{
    if (worker.joinable())
        worker.join();
    const QStringList texts = std::exchange(remarks, {});
    for (const QString &text : texts)
        report(text);
}
