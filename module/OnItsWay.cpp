#include "OnItsWay.h"

#include "Record.h"

#include <QFile>

#include <algorithm>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {

constexpr qsizetype mostRemembered = 100'000; // names that were given back, only to be counted
constexpr int mostFreed = 4'096; // records in one look: removing many files takes its time
constexpr auto flushAge = 250ms; // a record that waits longer is brought to the disk

// The kernel's count of bytes that the peer's kernel has acknowledged on this connection.
qint64 kernelCount(int socket)
{
    tcp_info info = {};
    socklen_t size = sizeof(info);
    if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return 0;
    return qint64(info.tcpi_bytes_acked);
}

} // namespace

OnItsWay::OnItsWay(SpoolKeeper &keptBy, Counters &counters)
    : keeper(keptBy)
    , done(counters)
{
}

bool OnItsWay::linkUp(qintptr socket, std::chrono::milliseconds deadAfter)
{
    link = Descriptor(::fcntl(int(socket), F_DUPFD_CLOEXEC, 0));
    if (!link.isOpen())
        return false;
    taken = flushedTo = 0;
    countAtStart = kernelCount(link.get());
    const unsigned int timeout = unsigned(deadAfter.count());
    if (::setsockopt(link.get(), IPPROTO_TCP, TCP_USER_TIMEOUT, &timeout, sizeof(timeout)) == 0)
        return true;
    link = Descriptor();
    return false;
}

void OnItsWay::linkDown()
{
    if (!link.isOpen())
        return;
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
    remembered.clear();
    if (!wasEmpty)
        keeper.giveBack();
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
    taken += bytes;
    const qint64 size = bytes - LinkRecord::lengthSize;
    records.push_back({taken, Clock::now(), journalEnd, name, listedAs, size});
    if (!givenBack.isEmpty() && givenBack.remove(name))
        done.repeated.add(size);
}

// --- acknowledgement ---

qint64 OnItsWay::acknowledgedBytes() const
{
    return link.isOpen() ? kernelCount(link.get()) - countAtStart : 0;
}

bool OnItsWay::look()
{
    if (records.empty())
        return false;
    const qint64 acknowledged = acknowledgedBytes();
    quint64 journalEnd = 0;
    int freed = 0;
    for (; !records.empty() && records.front().end <= acknowledged && freed < mostFreed;
         records.pop_front(), ++freed) {
        done.acknowledged.add(records.front().size);
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
