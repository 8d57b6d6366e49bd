#include "ReceivedFiles.h"

#include "WholeFile.h"
#include "ZlibStream.h"

#include <QThread>

#include <algorithm>
#include <cerrno>

namespace {

// As many packets as the largest file has. Bounds memory, together with the file being received.
constexpr qsizetype maxPacketsWaiting = Packet::maxNumber;

// Returns a received record without its last byte, which is part of the packet's checksum.
QByteArrayView payloadOf(const TTransferData &record)
{
    return QByteArrayView(record.data, std::max(record.length - 1, 0));
}

} // namespace

ReceivedFiles::ReceivedFiles(QObject *parent)
    : QObject(parent)
{
    retryTimer.setSingleShot(true);
    retryTimer.setInterval(retryInterval);
    connect(
        &retryTimer, &QTimer::timeout, this, [this] { write(*std::exchange(fileToRetry, {})); });
}

ReceivedFiles::~ReceivedFiles()
{
    interrupted = true;
    {
        const std::lock_guard lock(mutex);
        stopRequested = true;
    }
    changed.notify_all();
    if (worker.joinable())
        worker.join();
}

void ReceivedFiles::workInBackground()
{
    Q_ASSERT(!worker.joinable());
    isBackground = true;
}

void ReceivedFiles::write(GatheredFile file)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (fileToRetry && fileToRetry->path != file.path)
        giveUpUnwritable();
    retryTimer.stop();
    fileToRetry.reset(); // the new file has the same path and replaces it
    if (isBackground)
        return enqueue(std::move(file));
    report(inflateAndWrite(std::move(file)));
}

void ReceivedFiles::giveUpUnwritable()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (!fileToRetry)
        return;
    retryTimer.stop();
    const QString name = std::exchange(fileToRetry, {})->name;
    Q_EMIT trouble(tr("The received file %1 is lost, it could not be written").arg(name));
}

bool ReceivedFiles::isFull() const
{
    const std::lock_guard lock(mutex);
    return packetsWaiting >= maxPacketsWaiting;
}

void ReceivedFiles::finish(std::chrono::milliseconds longest)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (fileToRetry)
        write(*std::exchange(fileToRetry, {}));
    bool isDone = false;
    {
        std::unique_lock guard(mutex);
        isDone = changed.wait_for(guard, longest, [this] { return packetsWaiting == 0; });
    }
    takeResults();
    if (!isDone)
        Q_EMIT trouble(tr("Received files are lost, there was no time to write them"));
    giveUpUnwritable();
}

// --- the worker thread ---

void ReceivedFiles::enqueue(GatheredFile file)
{
    {
        const std::lock_guard lock(mutex);
        packetsWaiting += file.packets.size();
        waiting.push_back(std::move(file));
    }
    if (!worker.joinable())
        worker = std::thread(&ReceivedFiles::work, this);
    changed.notify_all();
}

void ReceivedFiles::work()
{
    std::unique_lock guard(mutex);
    for (;;) {
        changed.wait(guard, [this] { return stopRequested || !waiting.empty(); });
        if (stopRequested)
            return;
        GatheredFile file = std::move(waiting.front());
        waiting.pop_front();
        guard.unlock();
        Result result = inflateAndWrite(std::move(file));
        guard.lock();
        packetsWaiting -= result.file.packets.size();
        Q_ASSERT(packetsWaiting >= 0);
        results.push_back(std::move(result));
        changed.notify_all();
        QMetaObject::invokeMethod(
            this, [this] { takeResults(); }, Qt::QueuedConnection);
    }
}

ReceivedFiles::Result ReceivedFiles::inflateAndWrite(GatheredFile file) const
{
    Q_ASSERT((QThread::currentThread() == thread()) != isBackground);
    WholeFile whole(file.path);
    const Outcome outcome = inflateInto(whole, file);
    const int writeError = errno; // of the WholeFile
    return {std::move(file), outcome, writeError};
}

ReceivedFiles::Outcome ReceivedFiles::inflateInto(WholeFile &whole, const GatheredFile &file) const
{
    qint64 size = 0;
    ZlibStream::Inflater inflater([&](QByteArrayView bytes) {
        size += bytes.size();
        return !interrupted && (maxBytes == 0 || size <= maxBytes) && whole.write(bytes);
    });
    for (auto record = file.packets.upperBound(0); record != file.packets.cend(); ++record) {
        if (!inflater.write(payloadOf(*record)))
            break;
    }
    using End = ZlibStream::Inflater::End;
    const End end = inflater.end();
    if (interrupted)
        return Outcome::Interrupted;
    if (maxBytes != 0 && size > maxBytes)
        return Outcome::TooLarge;
    if (end != End::Clean && file.onlyIfClean)
        return Outcome::NotClean;
    if (end == End::WrongChecksum)
        return Outcome::WrongChecksum;
    if (!whole.commit(isBackground ? WholeFile::Flush::Yes : WholeFile::Flush::No))
        return Outcome::CannotWrite;
    return end == End::Clean ? Outcome::Written : Outcome::Cut;
}

// --- results ---

void ReceivedFiles::takeResults()
{
    Q_ASSERT(QThread::currentThread() == thread());
    std::deque<Result> taken;
    {
        const std::lock_guard lock(mutex);
        taken.swap(results);
    }
    for (Result &result : taken)
        report(std::move(result));
}

void ReceivedFiles::report(Result result)
{
    const QString name = result.file.name;
    switch (result.outcome) {
    case Outcome::Interrupted:
        return;
    case Outcome::CannotWrite:
        return retryLater(std::move(result));
    case Outcome::NotClean:
        Q_EMIT notClean(name);
        return;
    case Outcome::WrongChecksum:
        Q_EMIT trouble(tr("The received file %1 is not written, its checksum is wrong").arg(name));
        return;
    case Outcome::TooLarge:
        Q_EMIT trouble(
            tr("The received file %1 is not written, it has more than %2 bytes when inflated")
                .arg(name, QString::number(maxBytes)));
        return;
    case Outcome::Cut:
        Q_EMIT trouble(
            tr("The received file %1 is damaged, only its beginning is written").arg(name));
        break;
    case Outcome::Written:
        if (result.file.attempt > 1)
            Q_EMIT trouble(tr("The received file %1 is written now").arg(name));
    }
    Q_EMIT written(name);
}

void ReceivedFiles::retryLater(Result result)
{
    if (result.file.attempt++ == 1)
        Q_EMIT trouble(tr("Can't write the received file %1, trying again: %2")
                           .arg(result.file.name, qt_error_string(result.writeError)));
    giveUpUnwritable(); // only the latest file is kept for another attempt
    fileToRetry = std::move(result.file);
    retryTimer.start();
}
