#include "Flusher.h"

#include "Journal.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto gatherTime = 250ms; // from the first request to the flush
constexpr auto leastInterval = 500ms; // between the beginnings of two flushes
constexpr auto failureInterval = 5s; // the same after a failure

} // namespace

Flusher::Flusher(
    const QString &spool, std::function<int()> journalDescriptor, std::function<bool()> areNeeded)
    : path(QFile::encodeName(spool))
    , journal(std::move(journalDescriptor))
    , areFilesNeeded(std::move(areNeeded))
{
    due.setSingleShot(true);
    connect(&due, &QTimer::timeout, this, &Flusher::begin);
}

// Waits for a flush that is under way.
Flusher::~Flusher()
{
    {
        const std::lock_guard lock(mutex);
        shallEnd = true;
    }
    wake.notify_all();
    if (worker.joinable())
        worker.join();
}

// --- when ---

void Flusher::filesWritten()
{
    if (!std::exchange(areFilesDirty, true))
        schedule();
}

void Flusher::recordsWait()
{
    if (!std::exchange(areRecordsDirty, true))
        schedule();
}

void Flusher::schedule()
{
    if (isRunning || due.isActive())
        return;
    const auto next = lastBegin + (hasFailed ? failureInterval : leastInterval);
    const auto pause = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    due.start(std::max(areFilesDirty ? gatherTime : 0ms, pause));
}

void Flusher::begin()
{
    areFilesDirty = areFilesDirty && areFilesNeeded();
    if (!areFilesDirty && !areRecordsDirty)
        return;
    lastBegin = Clock::now();
    timespec now;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now); // the clock of the files' times
    Job next = {areFilesDirty, qint64(now.tv_sec) * 1'000'000'000 + now.tv_nsec,
        Descriptor(::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        Descriptor(::fcntl(journal(), F_DUPFD_CLOEXEC, 0))};
    areFilesDirty = areRecordsDirty = false;
    isRunning = true;
    {
        const std::lock_guard lock(mutex);
        job = std::move(next);
    }
    if (!worker.joinable())
        worker = std::thread([this] { run(); });
    wake.notify_all();
}

// --- the thread that waits for the disk ---

void Flusher::run()
{
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr); // the main thread handles signals
    std::unique_lock lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return job || shallEnd; });
        if (shallEnd)
            return;
        const Job current = std::move(*job);
        job.reset();
        lock.unlock();
        const int reason = perform(current);
        lock.lock();
        QMetaObject::invokeMethod(this, "finished", Qt::QueuedConnection, Q_ARG(int, reason));
    }
}

// The time is noted after the files are there, and that note brought to the disk too: else a later
// power cut would call them doubtful. Returns 0 or the reason as errno.
int Flusher::perform(const Job &job)
{
    if (job.withFiles
        && (::syncfs(job.spool.get()) != 0
            || (job.journal.isOpen() && !Journal::noteSynced(job.journal.get(), job.time))))
        return errno;
    return job.journal.isOpen() && !Journal::sync(job.journal.get()) ? errno : 0;
}

void Flusher::finished(int reason)
{
    isRunning = false;
    areFilesDirty |= reason != 0;
    if (reason != 0 && !std::exchange(hasFailed, true))
        Q_EMIT failed(qt_error_string(reason));
    else if (reason == 0 && std::exchange(hasFailed, false))
        Q_EMIT recovered();
    if (areFilesDirty || areRecordsDirty)
        schedule();
}
