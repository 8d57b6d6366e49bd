#include "OnItsWay.h"

#include "MainThread.h"

#include <QFile>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <limits>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {

// Names given back are remembered only to count repetitions, so forgetting them is harmless.
constexpr qsizetype mostNamesGivenBack = 100'000;
// Limits of one call of freeAcknowledged(), because removing files may block for long.
constexpr int mostFreedAtOnce = 4'096; // records
constexpr auto longestFreeing = 10ms;
constexpr int freedPerClockCheck = 64; // records
constexpr auto flushAge = 250ms; // a record that waits longer is flushed to the disk
constexpr size_t mostWaitingRecords = 65'536;
constexpr qint64 mostWaitingBytes = Journal::defaultBytes; // if the peer's program acknowledges
constexpr int mostFinalReads = 16; // of the peer's numbers, after the link has ended
// Limits the bytes that the kernel holds unsent. It still sends them after this process is killed,
// and then they arrive twice.
constexpr int mostUnsentBytes = 131'072;

// Returns how many bytes of this connection the peer's kernel has acknowledged.
qint64 kernelCount(int socket)
{
    tcp_info info = {};
    socklen_t size = sizeof(info);
    if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return 0;
    return qint64(info.tcpi_bytes_acked);
}

bool setOption(int socket, int option, int value)
{
    return ::setsockopt(socket, IPPROTO_TCP, option, &value, sizeof(value)) == 0;
}

} // namespace

OnItsWay::OnItsWay(
    SpoolKeeper &keptBy, Counters &countedIn, std::optional<std::chrono::milliseconds> time)
    : keeper(keptBy)
    , counters(countedIn)
    , acknowledgementTime(time)
{
}

bool OnItsWay::linkUp(qintptr socket, std::chrono::milliseconds deadAfter)
{
    Q_ASSERT(isMainThread());
    Q_ASSERT(records.empty()); // the end of the link before has returned them
    Q_ASSERT(deadAfter.count() <= std::numeric_limits<int>::max());
    ownLink = Descriptor(::fcntl(int(socket), F_DUPFD_CLOEXEC, 0));
    if (!ownLink.isOpen())
        return false;
    bytesTaken = flushRequestedTo = storedStreamEnd = 0;
    recordsTaken = recordsStored = recordsKnownArrived = lastNumberRead = 0;
    reader = LinkRecord::AcknowledgementReader();
    fault = Fault::None;
    kernelCountAtStart = kernelCount(ownLink.get());
    const int timeout = int(deadAfter.count());
    if (setOption(ownLink.get(), TCP_USER_TIMEOUT, timeout)
        && setOption(ownLink.get(), TCP_NOTSENT_LOWAT, mostUnsentBytes))
        return true;
    ownLink = Descriptor();
    return false;
}

void OnItsWay::linkDown()
{
    Q_ASSERT(isMainThread());
    if (!ownLink.isOpen())
        return;
    if (acknowledgementTime)
        readLastNumbers();
    while (freeAcknowledged()) { }
    ownLink = Descriptor();
    const bool wasEmpty = records.empty();
    if (namesGivenBack.size() > mostNamesGivenBack)
        namesGivenBack.clear();
    for (const Record &record : records) {
        counters.givenBack.add(record.bodySize);
        namesGivenBack.insert(record.name);
    }
    records.clear();
    waitingBytes = 0;
    rememberedEnds.clear();
    if (!wasEmpty)
        keeper.giveBack();
}

void OnItsWay::addUnkept(qint64 bytes)
{
    bytesTaken += bytes;
    ++recordsTaken;
}

void OnItsWay::addJournaled(const QByteArray &name, quint64 journalEnd, qint64 bytes)
{
    add(journalEnd, name, std::nullopt, bytes);
}

void OnItsWay::addKept(const QString &name, qint64 bytes)
{
    add(0, QFile::encodeName(name), std::nullopt, bytes);
}

void OnItsWay::addListed(const QString &name, const SpoolFile::Mark &mark, qint64 bytes)
{
    add(0, QFile::encodeName(name), mark, bytes);
}

void OnItsWay::add(quint64 journalEnd, const QByteArray &name,
    const std::optional<SpoolFile::Mark> &listedAs, qint64 bytes)
{
    Q_ASSERT(isMainThread() && bytes >= LinkRecord::lengthSize);
    Q_ASSERT(journalEnd == 0 || !listedAs); // it is in one place
    addUnkept(bytes);
    const qint64 size = bytes - LinkRecord::lengthSize;
    records.push_back({bytesTaken, recordsTaken, Clock::now(), journalEnd, name, listedAs, size});
    waitingBytes += size;
    if (!namesGivenBack.isEmpty() && namesGivenBack.remove(name))
        counters.repeated.add(size);
}

bool OnItsWay::hasRoomFor(qint64 bytes) const
{
    const bool isBounded = acknowledgementTime && !records.empty();
    return records.size() < mostWaitingRecords
        && (!isBounded || waitingBytes + bytes <= mostWaitingBytes);
}

// --- acknowledgement ---

qint64 OnItsWay::arrivedBytes() const
{
    return ownLink.isOpen() ? kernelCount(ownLink.get()) - kernelCountAtStart : 0;
}

bool OnItsWay::freeAcknowledged()
{
    Q_ASSERT(isMainThread());
    if (records.empty())
        return false;
    const qint64 acknowledged = acknowledgementTime ? storedStreamEnd : arrivedBytes();
    const Clock::time_point end = Clock::now() + longestFreeing;
    quint64 journalEnd = 0;
    int freed = 0;
    for (; !records.empty() && records.front().streamEnd <= acknowledged && freed < mostFreedAtOnce
         && (freed % freedPerClockCheck != 0 || Clock::now() < end);
         records.pop_front(), ++freed) {
        counters.acknowledged.add(records.front().bodySize);
        waitingBytes -= records.front().bodySize;
        if (records.front().journalEnd != 0)
            journalEnd = records.front().journalEnd;
        else
            removeFileOf(records.front());
    }
    Q_ASSERT(!records.empty() || waitingBytes == 0);
    keeper.sent().journal().free(journalEnd);
    if (records.empty())
        rememberedEnds.clear();
    else
        askForFlush(Clock::now());
    return freed > 0;
}

bool OnItsWay::hasMoreToFree() const
{
    return !records.empty() && records.front().streamEnd <= storedStreamEnd;
}

void OnItsWay::removeFileOf(const Record &record)
{
    const QString name = QFile::decodeName(record.name);
    if (!record.listedAs)
        keeper.sent().discard(name);
    else
        std::ignore = keeper.directory().remove(name, *record.listedAs);
}

void OnItsWay::askForFlush(Clock::time_point now)
{
    const auto first = std::upper_bound(records.begin(), records.end(), flushRequestedTo,
        [](qint64 place, const Record &record) { return place < record.streamEnd; });
    if (first == records.end() || now - first->takenAt < flushAge)
        return;
    flushRequestedTo = records.back().streamEnd;
    keeper.flusher().recordsWait();
}

std::chrono::milliseconds OnItsWay::oldestAge() const
{
    return records.empty() ? 0ms
                           : std::chrono::duration_cast<std::chrono::milliseconds>(
                               Clock::now() - records.front().takenAt);
}

// --- the numbers of the peer's program ---

// The peer's kernel acknowledges a record's bytes before the peer's program can count the record.
// So a number above this one cannot be true.
quint64 OnItsWay::arrivedRecords() const
{
    const auto first = std::upper_bound(records.begin(), records.end(), arrivedBytes(),
        [](qint64 bytes, const Record &record) { return bytes < record.streamEnd; });
    return first == records.end() ? recordsTaken : first->number - 1;
}

OnItsWay::Fault OnItsWay::acknowledge(QByteArrayView bytes)
{
    Q_ASSERT(isMainThread());
    if (fault != Fault::None)
        return fault;
    reader.append(bytes);
    fault = readNumbers();
    const auto next = std::upper_bound(records.begin(), records.end(), recordsStored,
        [](quint64 number, const Record &record) { return number < record.number; });
    if (next != records.begin())
        storedStreamEnd = std::prev(next)->streamEnd;
    return fault;
}

OnItsWay::Fault OnItsWay::readNumbers()
{
    while (const std::optional<quint64> number = reader.next()) {
        lastNumberRead = *number;
        if (*number < recordsStored)
            return Fault::NumberFell;
        if (*number > recordsKnownArrived)
            recordsKnownArrived = arrivedRecords();
        if (*number > recordsKnownArrived)
            return Fault::NumberTooHigh;
        if (*number > recordsStored)
            lastProgress = Clock::now();
        recordsStored = *number;
    }
    return Fault::None;
}

// The time runs only once the oldest record has arrived at the peer's host. Before that, the kernel
// decides whether the link is dead.
OnItsWay::Fault OnItsWay::checkOverdue()
{
    if (!acknowledgementTime || records.empty() || fault != Fault::None)
        return fault;
    const Clock::time_point now = Clock::now();
    if (records.front().streamEnd > arrivedBytes())
        lastProgress = now;
    if (now - std::max(lastProgress, records.front().takenAt) >= *acknowledgementTime)
        fault = Fault::Overdue;
    return fault;
}

// Reads the numbers that arrived before the link ended: a socket that fails while sending closes
// without reading them.
void OnItsWay::readLastNumbers()
{
    std::array<char, 65'536> buffer;
    for (int read = 0; read < mostFinalReads; ++read) {
        const ssize_t count = ::recv(ownLink.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count <= 0 || acknowledge(QByteArrayView(buffer.data(), count)) != Fault::None)
            return;
    }
}

// --- names ---

void OnItsWay::rememberNames()
{
    rememberedEnds.clear();
    for (const Record &record : records) {
        if (record.journalEnd != 0 || record.listedAs)
            rememberedEnds.insert(record.name, record.streamEnd);
    }
}

bool OnItsWay::holds(const QString &name) const
{
    if (holdsFile(name))
        return true;
    const auto found = rememberedEnds.constFind(QFile::encodeName(name));
    return found != rememberedEnds.cend() && !records.empty()
        && *found >= records.front().streamEnd;
}
