#include "OnItsWay.h"

#include <QFile>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {

constexpr qsizetype mostRemembered = 100'000; // names that were given back, only to be counted
constexpr int mostFreed = 4'096; // records in one look
constexpr auto longestFreeing = 10ms; // in one look: removing files takes its time
constexpr int freedPerGlance = 64; // records between two glances at the clock
constexpr auto flushAge = 250ms; // a record that waits longer is brought to the disk
constexpr size_t mostRecords = 65'536;
constexpr qint64 mostBytes = Journal::defaultBytes; // for a program that acknowledges
constexpr int mostPieces = 16; // of the numbers that are read after the end of a link
// Bytes that the kernel holds unsent. It sends them after a kill too, and then they come twice.
constexpr int mostUnsent = 131'072;

// The kernel's count of bytes that the peer's kernel has acknowledged on this connection.
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
    SpoolKeeper &keptBy, Counters &counters, std::optional<std::chrono::milliseconds> time)
    : keeper(keptBy)
    , done(counters)
    , peerTime(time)
{
}

bool OnItsWay::linkUp(qintptr socket, std::chrono::milliseconds deadAfter)
{
    link = Descriptor(::fcntl(int(socket), F_DUPFD_CLOEXEC, 0));
    if (!link.isOpen())
        return false;
    taken = flushedTo = storedTo = 0;
    takenRecords = stored = arrived = lastRead = 0;
    reader = LinkRecord::AcknowledgementReader();
    fault = Fault::None;
    countAtStart = kernelCount(link.get());
    const int timeout = int(deadAfter.count());
    if (setOption(link.get(), TCP_USER_TIMEOUT, timeout)
        && setOption(link.get(), TCP_NOTSENT_LOWAT, mostUnsent))
        return true;
    link = Descriptor();
    return false;
}

void OnItsWay::linkDown()
{
    if (!link.isOpen())
        return;
    if (peerTime)
        readRest();
    while (look()) { }
    link = Descriptor();
    const bool wasEmpty = records.empty();
    if (givenBack.size() > mostRemembered)
        givenBack.clear();
    for (const Record &record : records) {
        done.givenBack.add(record.size);
        givenBack.insert(record.name);
    }
    records.clear();
    waitingBytes = 0;
    remembered.clear();
    if (!wasEmpty)
        keeper.giveBack();
}

void OnItsWay::addUnkept(qint64 bytes)
{
    taken += bytes;
    ++takenRecords;
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
    addUnkept(bytes);
    const qint64 size = bytes - LinkRecord::lengthSize;
    records.push_back({taken, takenRecords, Clock::now(), journalEnd, name, listedAs, size});
    waitingBytes += size;
    if (!givenBack.isEmpty() && givenBack.remove(name))
        done.repeated.add(size);
}

bool OnItsWay::hasRoomFor(qint64 bytes) const
{
    const bool isBounded = peerTime && !records.empty();
    return records.size() < mostRecords && (!isBounded || waitingBytes + bytes <= mostBytes);
}

// --- acknowledgement ---

qint64 OnItsWay::arrivedBytes() const
{
    return link.isOpen() ? kernelCount(link.get()) - countAtStart : 0;
}

bool OnItsWay::look()
{
    if (records.empty())
        return false;
    const qint64 acknowledged = peerTime ? storedTo : arrivedBytes();
    const Clock::time_point end = Clock::now() + longestFreeing;
    quint64 journalEnd = 0;
    int freed = 0;
    for (; !records.empty() && records.front().end <= acknowledged && freed < mostFreed
         && (freed % freedPerGlance != 0 || Clock::now() < end);
         records.pop_front(), ++freed) {
        done.acknowledged.add(records.front().size);
        waitingBytes -= records.front().size;
        if (records.front().journalEnd != 0)
            journalEnd = records.front().journalEnd;
        else
            forget(records.front());
    }
    keeper.sent().journal().free(journalEnd);
    if (records.empty())
        remembered.clear();
    else
        askForFlush(Clock::now());
    return freed > 0;
}

bool OnItsWay::isBehind() const
{
    return !records.empty() && records.front().end <= storedTo;
}

void OnItsWay::forget(const Record &record)
{
    const QString name = QFile::decodeName(record.name);
    if (!record.listedAs)
        keeper.sent().discard(name);
    else
        std::ignore = keeper.directory().remove(name, *record.listedAs);
}

void OnItsWay::askForFlush(Clock::time_point now)
{
    const auto first = std::upper_bound(records.begin(), records.end(), flushedTo,
        [](qint64 end, const Record &record) { return end < record.end; });
    if (first == records.end() || now - first->since < flushAge)
        return;
    flushedTo = records.back().end;
    keeper.flusher().recordsWait();
}

std::chrono::milliseconds OnItsWay::age() const
{
    return records.empty() ? 0ms
                           : std::chrono::duration_cast<std::chrono::milliseconds>(
                               Clock::now() - records.front().since);
}

// --- the numbers of the peer's program ---

// A number reaches this program behind the acknowledgement of the bytes that it counts, so the
// kernel tells which numbers cannot be true.
quint64 OnItsWay::arrivedRecords() const
{
    const auto first = std::upper_bound(records.begin(), records.end(), arrivedBytes(),
        [](qint64 bytes, const Record &record) { return bytes < record.end; });
    return first == records.end() ? takenRecords : first->number - 1;
}

OnItsWay::Fault OnItsWay::acknowledge(QByteArrayView bytes)
{
    if (fault != Fault::None)
        return fault;
    reader.append(bytes);
    fault = readNumbers();
    const auto next = std::upper_bound(records.begin(), records.end(), stored,
        [](quint64 number, const Record &record) { return number < record.number; });
    if (next != records.begin())
        storedTo = std::prev(next)->end;
    return fault;
}

OnItsWay::Fault OnItsWay::readNumbers()
{
    while (const std::optional<quint64> number = reader.next()) {
        lastRead = *number;
        if (*number < stored)
            return Fault::Backwards;
        if (*number > arrived)
            arrived = arrivedRecords();
        if (*number > arrived)
            return Fault::Beyond;
        if (*number > stored)
            lastStored = Clock::now();
        stored = *number;
    }
    return Fault::None;
}

// As long as the oldest record is not there, the kernel decides when the link is dead.
OnItsWay::Fault OnItsWay::checkTime()
{
    if (!peerTime || records.empty() || fault != Fault::None)
        return fault;
    const Clock::time_point now = Clock::now();
    if (records.front().end > arrivedBytes())
        lastStored = now;
    if (now - std::max(lastStored, records.front().since) >= *peerTime)
        fault = Fault::Overdue;
    return fault;
}

// The socket may have failed in sending, with numbers before the end that were not read yet.
void OnItsWay::readRest()
{
    std::array<char, 65'536> buffer;
    for (int piece = 0; piece < mostPieces; ++piece) {
        const ssize_t count = ::recv(link.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count <= 0 || acknowledge(QByteArrayView(buffer.data(), count)) != Fault::None)
            return;
    }
}

// --- names ---

void OnItsWay::rememberNames()
{
    remembered.clear();
    for (const Record &record : records) {
        if (record.journalEnd != 0 || record.listedAs)
            remembered.insert(record.name, record.end);
    }
}

bool OnItsWay::holds(const QString &name) const
{
    if (holdsFile(name))
        return true;
    const auto found = remembered.constFind(QFile::encodeName(name));
    return found != remembered.cend() && !records.empty() && *found >= records.front().end;
}
