#include "SpoolSender.h"

#include "Record.h"

#include <QTcpSocket>

#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto lockStep = 1s; // between two looks at the lock
constexpr auto lookInterval = 250ms; // between two looks at what is acknowledged
// Bytes between two looks in the midst of a stream: the files that are kept aside stay few, and the
// memory that holds them is used again while it is still in the processor's cache.
constexpr qint64 lookBytes = 262'144;
constexpr qsizetype minShared = 16'384; // bytes; the size of the pieces that small records fill
// Bytes that wait in the socket, or one larger record. An attempt to connect that fails has then
// not read and moved half a backlog in vain.
constexpr qint64 maxBuffered = 1'048'576;

} // namespace

SpoolSender::SpoolSender(QTcpSocket &tcpLink, Say log)
    : link(tcpLink)
    , say(std::move(log))
    , spool(QString())
{
    connect(&link, &QAbstractSocket::stateChanged, this, &SpoolSender::linkStateChanged);
    connect(&link, &QIODevice::bytesWritten, this, &SpoolSender::bytesWritten);
}

void SpoolSender::setSpool(const QString &directory)
{
    spool = SpoolDirectory(directory);
    unacknowledged.setSpool(directory);
}

bool SpoolSender::linkUp()
{
    unacknowledged.recover(); // what could not be given back to a full disk
    return unacknowledged.linkUp(link.socketDescriptor(), deadAfter);
}

// Every end of a link or of an attempt passes here, whatever brought it about.
void SpoolSender::linkStateChanged()
{
    if (link.state() != QAbstractSocket::UnconnectedState)
        return;
    listed = {};
    listAgain = false;
    unacknowledged.linkDown();
}

void SpoolSender::bytesWritten()
{
    // By itself the socket sends one piece of its buffer for each turn of the event loop, while the
    // bus brings many records in one: the buffer would fill although the peer reads.
    link.flush();
    if (takenSinceLook >= lookBytes) {
        takenSinceLook = 0;
        unacknowledged.look();
    }
    // Half empty is early enough: the kernel's own buffer keeps the link busy meanwhile.
    if (!listed.isEmpty() && link.bytesToWrite() <= maxBuffered / 2)
        sendListed();
}

void SpoolSender::timerEvent(QTimerEvent *)
{
    unacknowledged.look();
    if (!unacknowledged.isEmpty())
        return;
    unacknowledged.removeFolder();
    killTimer(std::exchange(lookTimerId, 0));
}

void SpoolSender::watchAcknowledgements()
{
    if (!unacknowledged.isEmpty() && lookTimerId == 0)
        lookTimerId = startTimer(lookInterval);
}

// While connecting the socket's buffer takes records too. Without an attempt it takes none.
bool SpoolSender::takesRecords() const
{
    return link.isOpen() && link.state() != QAbstractSocket::UnconnectedState;
}

bool SpoolSender::waitForLock()
{
    SpoolLock lock(spool.path(), say);
    while (takesRecords()) {
        switch (lock.look()) {
        case SpoolLock::State::Free:
            return true;
        case SpoolLock::State::Stuck:
            return false;
        case SpoolLock::State::Held:
            std::this_thread::sleep_for(lockStep);
        }
    }
    return false;
}

void SpoolSender::send()
{
    if (!listed.isEmpty()) {
        listAgain = true;
        return;
    }
    if (!waitForLock())
        return;
    listed = spool.list();
    sendListed();
}

void SpoolSender::sendListed()
{
    while (!listed.isEmpty()) {
        if (!takesRecords() || !sendFile(listed.first()))
            return watchAcknowledgements(); // goes on when the buffer drains, or with a new link
        listed.removeFirst();
    }
    watchAcknowledgements();
    if (std::exchange(listAgain, false))
        send();
}

bool SpoolSender::hasRoomFor(qint64 bytes) const
{
    return link.bytesToWrite() == 0 || link.bytesToWrite() + bytes <= maxBuffered;
}

// False if the socket must drain first. A file that cannot be read or is not taken is passed over.
bool SpoolSender::sendFile(const QString &name)
{
    if (unacknowledged.isOnItsWay(name))
        return true;
    const SpoolFile file = spool.open(name);
    if (!file.isOpen())
        return true;
    if (!hasRoomFor(LinkRecord::lengthSize + file.mark().size))
        return false;
    std::optional<QByteArray> record = file.read(LinkRecord::lengthSize);
    if (!record)
        return true;
    LinkRecord::complete(*record);
    if (write(*record) != record->size())
        return true;
    takenSinceLook += record->size();
    const auto taken = unacknowledged.addRecord(name, file.mark(), record->size());
    if (taken == SentFolder::Take::StillListed)
        Q_EMIT fileKept(spool.pathOf(name));
    else if (taken == SentFolder::Take::Replaced)
        listAgain = true; // the newer file may have taken its place after the listing
    return true;
}

// By pointer and size the socket copies small records together, and sends many in one call. A
// large one it takes over without a copy.
qint64 SpoolSender::write(const QByteArray &record)
{
    return record.size() < minShared ? link.write(record.constData(), record.size())
                                     : link.write(record);
}

void SpoolSender::sendKeepAlive()
{
    const QByteArray record = LinkRecord::make(LinkRecord::keepAlive);
    unacknowledged.addBytes(std::max<qint64>(link.write(record), 0));
}
