#include "SpoolSender.h"

#include "Counters.h"

#include <QFile>
#include <QTcpSocket>

#include <ctime>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto sliceTime = 10ms; // of a listing, between two turns of the event loop
constexpr auto shortScan = 5ms; // a longer one is left to another thread
constexpr auto lockInterval = 100ms; // between two looks at a lock that somebody holds
constexpr auto firstLook = 1ms; // at acknowledgements, after something was sent
constexpr auto longestLook = 250ms; // between two looks while nothing changes
constexpr int lookShare = 4; // a look comes when a record has waited for a quarter as long again
constexpr auto lastWait = 50ms; // for acknowledgements when the process ends
constexpr auto lastPeerWait = 1s; // the same for those of the peer's program
constexpr auto faultInterval = 1h; // between two lines of the log about a fault that goes on
constexpr qint64 mostUnread = 65'536; // bytes of numbers; the rest stays in the kernel meanwhile
constexpr qsizetype minShared = 16'384; // bytes; the size of the pieces that small records fill
// Bytes that wait in the socket, or one larger record.
constexpr qint64 maxBuffered = 1'048'576;

qint64 timeNow()
{
    timespec now;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now); // the clock of the files' times
    return qint64(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

} // namespace

SpoolSender::SpoolSender(QTcpSocket &tcpLink, SpoolKeeper &spoolKeeper, Counters &counters,
    MessageSink log, const Times &timeLimits, WriteFile write)
    : link(tcpLink)
    , keeper(spoolKeeper)
    , done(counters)
    , report(std::move(log))
    , times(timeLimits)
    , writeFile(std::move(write))
    , onItsWay(spoolKeeper, counters, timeLimits.acknowledgement)
    , lock(spoolKeeper.directory().path(), report)
    , quiet(spoolKeeper.directory().path())
{
    work.setSingleShot(true);
    lookTimer.setSingleShot(true);
    lookTimer.setTimerType(Qt::PreciseTimer);
    connect(&work, &QTimer::timeout, this, &SpoolSender::goOn);
    connect(&lookTimer, &QTimer::timeout, this, &SpoolSender::lookNow);
    connect(&link, &QAbstractSocket::stateChanged, this, &SpoolSender::linkStateChanged);
    connect(&link, &QIODevice::bytesWritten, this, &SpoolSender::bytesWritten);
    connect(&link, &QIODevice::readyRead, this, &SpoolSender::readFromPeer);
    link.setReadBufferSize(times.acknowledgement ? mostUnread : 0);
    connect(&keeper, &SpoolKeeper::gaveBack, this, &SpoolSender::send);
}

SpoolSender::~SpoolSender()
{
    waitForScan();
}

// --- the link ---

bool SpoolSender::linkUp()
{
    if (!onItsWay.linkUp(link.socketDescriptor(), times.deadAfter))
        return false;
    if (!keeper.sent().isEmpty() && !keeper.giveBack())
        resendJournal();
    return true;
}

// What a full disk keeps out of the spool goes to the peer from where it is.
void SpoolSender::resendJournal()
{
    keeper.sent().journal().forEach([this](const Journal::Entry &entry) {
        const QByteArray record = LinkRecord::make(entry.content.toByteArray());
        onItsWay.addJournaled(entry.name.toByteArray(), entry.end, record.size());
        return write(record);
    });
    lookSoon();
}

// Every end of a link passes here, whatever brought it about.
void SpoolSender::linkStateChanged()
{
    if (link.state() != QAbstractSocket::UnconnectedState)
        return;
    dropListing();
    work.stop();
    lookTimer.stop();
    onItsWay.linkDown();
}

void SpoolSender::bytesWritten()
{
    // By itself the socket sends one piece of its buffer for each turn of the event loop, while the
    // bus brings many records in one: the buffer would fill although the peer reads.
    link.flush();
    // Half empty is early enough: the kernel's own buffer keeps the link busy meanwhile.
    if (!listed.isEmpty() && link.bytesToWrite() <= maxBuffered / 2 && !work.isActive())
        work.start(0ms);
}

bool SpoolSender::hasRoomFor(qint64 bytes) const
{
    return onItsWay.hasRoomFor(bytes)
        && (link.bytesToWrite() == 0 || link.bytesToWrite() + bytes <= maxBuffered);
}

// By pointer and size the socket copies small records together, and sends many in one call. A
// large one it takes over without a copy.
bool SpoolSender::write(const QByteArray &record)
{
    const qint64 count = record.size() < minShared ? link.write(record.constData(), record.size())
                                                   : link.write(record);
    return count == record.size();
}

void SpoolSender::sendKeepAlive()
{
    commit();
    const QByteArray record = LinkRecord::make(LinkRecord::keepAlive);
    if (write(record))
        onItsWay.addUnkept(record.size());
}

// --- acknowledgements ---

// What the peer's program acknowledges comes by itself.
void SpoolSender::lookSoon()
{
    lookWithin(times.acknowledgement ? longestLook : firstLook);
}

void SpoolSender::lookWithin(std::chrono::milliseconds time)
{
    if (!onItsWay.isEmpty() && (!lookTimer.isActive() || lookTimer.intervalAsDuration() > time))
        lookTimer.start(time);
}

void SpoolSender::lookNow()
{
    const bool hasFreed = onItsWay.look();
    const OnItsWay::Fault fault = hasFreed ? OnItsWay::Fault::None : onItsWay.checkTime();
    if (fault != OnItsWay::Fault::None)
        return endLink(fault);
    if (!onItsWay.isEmpty())
        lookTimer.start(nextLook(hasFreed));
    if (hasFreed && !listed.isEmpty() && !work.isActive())
        work.start(0ms); // a file may have waited for one of its name, or for room
}

std::chrono::milliseconds SpoolSender::nextLook(bool hasFreed) const
{
    if (times.acknowledgement)
        return onItsWay.isBehind() ? firstLook : longestLook;
    return hasFreed
        ? firstLook
        : std::clamp<std::chrono::milliseconds>(onItsWay.age() / lookShare, firstLook, longestLook);
}

void SpoolSender::stop()
{
    commit();
    const QDeadlineTimer end(times.acknowledgement ? lastPeerWait : lastWait);
    while (onItsWay.isLinkUp() && !onItsWay.isEmpty() && !end.hasExpired()) {
        if (!onItsWay.look() && times.acknowledgement)
            link.waitForReadyRead(int(end.remainingTime()));
        else
            std::this_thread::sleep_for(firstLook);
    }
    onItsWay.linkDown();
}

// Bytes that nobody asked for must be read all the same: they would pile up, or hide that the peer
// has closed.
void SpoolSender::readFromPeer()
{
    if (!times.acknowledgement || !onItsWay.isLinkUp()) {
        link.skip(link.bytesAvailable());
        return;
    }
    const OnItsWay::Fault fault = onItsWay.acknowledge(link.readAll());
    if (fault != OnItsWay::Fault::None)
        return endLink(fault);
    lookWithin(firstLook); // not for each of many numbers
}

void SpoolSender::endLink(OnItsWay::Fault fault)
{
    if (fault != saidFault || saidRecently.hasExpired()) {
        report(textOf(fault));
        saidFault = fault;
        saidRecently.setRemainingTime(faultInterval);
    }
    link.abort();
}

QString SpoolSender::textOf(OnItsWay::Fault fault) const
{
    const QString stored = QString::number(onItsWay.storedRecords());
    const QString refused = QString::number(onItsWay.lastNumber());
    switch (fault) {
    case OnItsWay::Fault::None:
        break;
    case OnItsWay::Fault::Backwards:
        return tr("The peer acknowledges %1 records after %2: the link is ended")
            .arg(refused, stored);
    case OnItsWay::Fault::Beyond:
        return tr("The peer acknowledges %1 records, which it cannot have: the link is ended")
            .arg(refused);
    case OnItsWay::Fault::Overdue:
        return tr("The peer has acknowledged %1 records and no more in time: the link is ended")
            .arg(stored);
    }
    return {};
}

// --- records that need no file ---

// One look at the spool serves all records of one read of the bus.
bool SpoolSender::isRoadOpen()
{
    if (road == Road::Unknown) {
        const bool isIdle = !scan && listed.isEmpty() && !listAgain;
        const bool isOpen =
            link.state() == QAbstractSocket::ConnectedState && onItsWay.isLinkUp() && isIdle;
        road = isOpen && quiet.look() ? Road::Open : Road::Closed;
    }
    return road == Road::Open;
}

bool SpoolSender::sendAtOnce(const DataRecord &record)
{
    if (!isRoadOpen())
        return false;
    road = Road::Closed; // a record that becomes a file must not be overtaken
    const QByteArray name = QFile::encodeName(record.fileName);
    const qsizetype size = record.kind.size() + record.payload.size();
    Journal &journal = keeper.sent().journal();
    if (!isPlainName(record.fileName) || !quiet.canHold(name) || onItsWay.holdsFile(record.fileName)
        || !hasRoomFor(outgoing.size() + LinkRecord::lengthSize + size)
        || !journal.hasRoomFor(name.size(), size))
        return false;
    const quint64 end = journal.add(name, timeNow(), record.kind, record.payload);
    LinkRecord::append(outgoing, record.kind, record.payload);
    staged.push_back({name, end, LinkRecord::lengthSize + size});
    road = Road::Open;
    return true;
}

void SpoolSender::commit()
{
    road = Road::Unknown;
    if (staged.empty())
        return;
    if (!keeper.sent().journal().commit())
        return spillStaged();
    for (const Staged &record : staged) {
        onItsWay.addJournaled(record.name, record.journalEnd, record.bytes);
        done.accepted.add(record.bytes - LinkRecord::lengthSize);
        done.sent.add(record.bytes - LinkRecord::lengthSize);
    }
    staged.clear();
    const QByteArray records = std::exchange(outgoing, {});
    std::ignore = link.write(records); // what it does not take comes back with the link's end
    link.flush();
    lookSoon();
}

// The disk has failed under the journal: all of them become files.
void SpoolSender::spillStaged()
{
    LinkRecord::Reader reader;
    reader.append(std::exchange(outgoing, {}));
    for (const Staged &record : std::exchange(staged, {}))
        writeFile(QFile::decodeName(record.name), reader.next().value_or(QByteArray()));
    send();
}

// --- files ---

void SpoolSender::send()
{
    if (link.state() != QAbstractSocket::ConnectedState || !onItsWay.isLinkUp())
        return;
    if (scan || !listed.isEmpty()) {
        listAgain = true;
        return;
    }
    beginListing({});
    goOn();
}

void SpoolSender::beginListing(const QByteArray &after)
{
    scan.emplace(keeper.directory().path(), after);
    onItsWay.rememberNames();
}

// A lock that cannot be removed keeps everything in the spool until the next record comes.
bool SpoolSender::isSpoolFree()
{
    switch (lock.look()) {
    case SpoolLock::State::Free:
        return true;
    case SpoolLock::State::Held:
        work.start(lockInterval);
        return false;
    case SpoolLock::State::Stuck:
        dropListing();
        return false;
    }
    return false;
}

// A piece of the current listing. It waits for the socket, for acknowledgements, or for its turn.
void SpoolSender::goOn()
{
    const QDeadlineTimer deadline(sliceTime);
    if (!isSpoolFree() || (scan && !goOnScanning()))
        return;
    while (!listed.isEmpty()) {
        if (deadline.hasExpired()) {
            link.flush();
            return work.start(0ms);
        }
        if (sendFile(listed.first()) == Step::MustWait)
            return lookSoon();
        if (listed.isEmpty())
            break; // the link has ended meanwhile
        lastListed = listed.firstName();
        listed.removeFirst();
    }
    endOfListing();
}

// A few thousand names are read and sorted at once. More of them would keep the bus waiting.
bool SpoolSender::goOnScanning()
{
    if (scanner.joinable())
        return false;
    if (!scan->goOn(QDeadlineTimer(shortScan))) {
        scanner = std::thread([this] {
            std::ignore = scan->goOn();
            QMetaObject::invokeMethod(this, "scanned", Qt::QueuedConnection);
        });
        return false;
    }
    isCutOff = scan->isCutOff();
    listed = scan->takeNames();
    scan.reset();
    return true;
}

void SpoolSender::scanned()
{
    waitForScan();
    if (!std::exchange(isScanVain, false))
        return goOn();
    scan.reset();
    listAgain = false;
    send();
}

void SpoolSender::waitForScan()
{
    if (scanner.joinable())
        scanner.join();
}

void SpoolSender::dropListing()
{
    listed = SpoolListing();
    listAgain = isCutOff = false;
    isScanVain = scanner.joinable(); // it is dropped when it ends
    if (!isScanVain)
        scan.reset();
}

void SpoolSender::endOfListing()
{
    lookSoon();
    const bool isMoreWaiting = std::exchange(isCutOff, false);
    listed = SpoolListing();
    if (!isMoreWaiting && !std::exchange(listAgain, false))
        return;
    // In its own turn: a file that another writer changes all the time must not nest these calls.
    beginListing(isMoreWaiting ? lastListed : QByteArray());
    work.start(0ms);
}

// A file that cannot be read or is not taken is passed over.
SpoolSender::Step SpoolSender::sendFile(const QString &name)
{
    const SpoolFile file = keeper.directory().open(name);
    if (!file.isOpen())
        return Step::Done;
    if (onItsWay.holds(name) || !hasRoomFor(LinkRecord::lengthSize + file.mark().size))
        return Step::MustWait;
    std::optional<QByteArray> record = file.read(LinkRecord::lengthSize);
    if (!record)
        return Step::Done;
    LinkRecord::complete(*record);
    const auto content = QByteArrayView(*record).sliced(LinkRecord::lengthSize);
    const SentFolder::Take taken = keeper.sent().take(name, file.mark(), content);
    if (taken == SentFolder::Take::Gone)
        return Step::Done;
    if (taken == SentFolder::Take::Replaced) {
        listAgain = true; // what has taken its place may come behind it in the order
        return Step::Done;
    }
    if (taken == SentFolder::Take::NoRoom && !onItsWay.isEmpty())
        return Step::MustWait; // for room
    const qint64 size = record->size();
    if (!write(*record)) {
        if (taken == SentFolder::Take::Taken)
            keeper.sent().giveBack(name);
        return Step::Done;
    }
    done.sent.add(content.size());
    if (taken == SentFolder::Take::Taken)
        onItsWay.addKept(name, size);
    else if (taken == SentFolder::Take::NoRoom)
        onItsWay.addListed(name, file.mark(), size);
    else {
        onItsWay.addUnkept(size);
        Q_EMIT fileKept(keeper.directory().pathOf(name));
    }
    return Step::Done;
}
