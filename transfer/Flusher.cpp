#include "Flusher.h"

#include "FileTime.h"
#include "Journal.h"

#include <QThread>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto gatherTime = 250ms; // from the first request to the flush
constexpr auto leastInterval = 500ms; // between the beginnings of two flushes
constexpr auto failureInterval = 5s; // the same after a failure

} // namespace

Flusher::Flusher(const SpoolDirectory &spoolDirectory, std::function<int()> journalDescriptor,
    std::function<bool()> areNeeded)
    : spool(spoolDirectory)
    , journal(std::move(journalDescriptor))
    , areFilesNeeded(std::move(areNeeded))
{
    beginTimer.setSingleShot(true);
    connect(&beginTimer, &QTimer::timeout, this, &Flusher::begin);
}

// Waits for a flush that is under way.
Flusher::~Flusher()
{
    {
        const std::lock_guard lock(mutex);
        stopRequested = true;
    }
    wake.notify_all();
    if (worker.joinable())
        worker.join();
}

// --- when ---

void Flusher::filesWritten()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!std::exchange(areFilesDirty, true))
        schedule();
}

void Flusher::recordsWait()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!std::exchange(areRecordsDirty, true))
        schedule();
}

void Flusher::schedule()
{
    if (isRunning || beginTimer.isActive())
        return;
    const auto next = lastBegin + (hasFailed ? failureInterval : leastInterval);
    const auto pause = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    beginTimer.start(std::max(areFilesDirty ? gatherTime : 0ms, pause));
}

void Flusher::begin()
{
    Q_ASSERT(!isRunning);
    areFilesDirty = areFilesDirty && areFilesNeeded();
    if (!areFilesDirty && !areRecordsDirty)
        return;
    lastBegin = Clock::now();
    Job next = {areFilesDirty, FileTime::now(),
        Descriptor(::open(spool.encodedPath().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
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
        wake.wait(lock, [this] { return job || stopRequested; });
        if (stopRequested)
            return;
        const Job current = std::move(*job);
        job.reset();
        lock.unlock();
        const int reason = perform(current) ? 0 : errno;
        lock.lock();
        QMetaObject::invokeMethod(
            this, [this, reason] { finish(reason); }, Qt::QueuedConnection);
    }
}

// Returns false with the reason in errno. Notes the time after the files are on the disk, and then
// flushes that note too: otherwise a later power cut would put the files in doubt.
bool Flusher::perform(const Job &job)
{
    const bool areFilesFlushed = !job.withFiles
        || (::syncfs(job.spool.get()) == 0
            && (!job.journal.isOpen() || Journal::noteSynced(job.journal.get(), job.time)));
    return areFilesFlushed && (!job.journal.isOpen() || Journal::sync(job.journal.get()));
}

void Flusher::finish(int reason)
{
    Q_ASSERT(QThread::currentThread() == thread());
    isRunning = false;
    areFilesDirty |= reason != 0;
    if (reason != 0 && !std::exchange(hasFailed, true))
        Q_EMIT failed(qt_error_string(reason));
    else if (reason == 0 && std::exchange(hasFailed, false))
        Q_EMIT recovered();
    if (areFilesDirty || areRecordsDirty)
        schedule();
}
