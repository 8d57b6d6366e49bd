#include "Unacknowledged.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

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

Unacknowledged::~Unacknowledged()
{
    closeLink();
}

void Unacknowledged::setSpool(const QString &directory)
{
    spool = SpoolDirectory(directory);
    files.setSpool(directory);
}

bool Unacknowledged::linkUp(qintptr socket, std::chrono::milliseconds deadAfter)
{
    closeLink();
    link = ::fcntl(int(socket), F_DUPFD_CLOEXEC, 0);
    if (link < 0)
        return false;
    countAtStart = kernelCount(link);
    const unsigned int timeout = unsigned(deadAfter.count());
    return ::setsockopt(link, IPPROTO_TCP, TCP_USER_TIMEOUT, &timeout, sizeof(timeout)) == 0;
}

SentFolder::Take Unacknowledged::addRecord(
    const QString &name, const SpoolFile::Mark &mark, qint64 bytes)
{
    addBytes(bytes);
    const SentFolder::Take result = files.take(name, mark.inode);
    if (result == SentFolder::Take::Done) {
        records.push_back({name, taken, std::nullopt});
        ++keptAs[name];
    } else if (result == SentFolder::Take::StillListed && files.isFull()) {
        records.push_back({name, taken, mark});
        stuck.insert(name, mark);
    }
    return result;
}

bool Unacknowledged::isOnItsWay(const QString &name) const
{
    const auto sent = stuck.find(name);
    return sent != stuck.end() && spool.mark(name) == *sent;
}

qint64 Unacknowledged::acknowledgedBytes() const
{
    return link < 0 ? 0 : kernelCount(link) - countAtStart;
}

void Unacknowledged::look()
{
    const qint64 acknowledged = records.empty() ? 0 : acknowledgedBytes();
    while (!records.empty() && records.front().end <= acknowledged) {
        forget(records.front());
        records.pop_front();
    }
}

void Unacknowledged::forget(const Record &record)
{
    if (record.stuckAs) {
        // A file that has replaced it has not arrived yet.
        if (spool.mark(record.name) == record.stuckAs && spool.remove(record.name))
            stuck.remove(record.name);
        return;
    }
    const auto count = keptAs.find(record.name);
    if (--*count == 0) {
        files.discard(record.name);
        keptAs.erase(count);
    }
}

void Unacknowledged::linkDown()
{
    look();
    closeLink();
    for (auto kept = keptAs.cbegin(); kept != keptAs.cend(); ++kept)
        files.giveBack(kept.key());
    keptAs.clear();
    stuck.clear();
    records.clear();
    files.close();
    taken = 0;
}

void Unacknowledged::closeLink()
{
    if (link >= 0)
        ::close(link);
    link = -1;
}
