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
    , leftovers(path, report)
    , disk(
          path, [this] { return folder.journal().descriptor(); }, [this] { return holdsFiles(); })
    , lock(path, report)
{
    retry.setInterval(retryInterval);
    connect(&retry, &QTimer::timeout, this, &SpoolKeeper::tryAgain);
    tidy.setInterval(tidyInterval);
    connect(&tidy, &QTimer::timeout, this, &SpoolKeeper::removeLeftFiles);
    connect(&disk, &Flusher::failed, this, [this](const QString &reason) {
        report(tr("Can't bring the files of %1 to the disk: %2").arg(spool.path(), reason));
    });
    connect(&disk, &Flusher::recovered, this,
        [this] { report(tr("The files of %1 are brought to the disk again").arg(spool.path())); });
}

// What earlier processes of the running system have written may not be on the disk yet either.
void SpoolKeeper::start()
{
    hasLeftovers = !leftovers.giveBack();
    if (hasLeftovers)
        retry.start();
    removeLeftFiles();
    if (folder.open() && folder.journal().isOpen())
        std::ignore = Journal::noteSynced(
            folder.journal().descriptor(), std::min(leftovers.syncedUntil(), timeNow()));
    disk.filesWritten();
}

void SpoolKeeper::stop()
{
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
        retry.start();
    }
    return !hasStranded;
}

void SpoolKeeper::tryAgain()
{
    const bool hadStranded = hasStranded;
    if (hasLeftovers)
        hasLeftovers = !leftovers.giveBack();
    if (hasStranded)
        std::ignore = giveBack();
    if (!hasLeftovers && !hasStranded)
        retry.stop();
    if (!hasLeftovers || (hadStranded && !hasStranded))
        Q_EMIT gaveBack();
}

void SpoolKeeper::removeLeftFiles()
{
    if (spool.removeLeftovers(lock))
        tidy.stop();
    else
        tidy.start();
}
