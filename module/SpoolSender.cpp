#include "SpoolSender.h"

#include "Counters.h"
#include "DataRecord.h"
#include "FileName.h"
#include "FileTime.h"

#include <QFile>
#include <QTcpSocket>
#include <QThread>

#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto listingSliceTime = 10ms; // then the event loop gets its next turn
constexpr auto shortScan = 5ms; // a longer scan continues on another thread
constexpr auto lockRetryInterval = 100ms; // while another process holds the lock
// Acknowledgements are checked soon after something was sent or freed, then ever less often: after
// each further quarter of the oldest record's age.
constexpr auto shortestCheck = 1ms;
constexpr auto longestCheck = 250ms;
constexpr int checkShare = 4;
// How long the process waits for acknowledgements before it ends.
constexpr auto longestKernelWait = 50ms;
constexpr auto longestPeerWait = 1s;
constexpr auto faultLogInterval = 1h; // between two lines about the same fault
constexpr qint64 maxUnreadNumberBytes = 65'536; // the kernel keeps the rest
// Bytes. The socket copies smaller records together into pieces of this size.
constexpr qsizetype sharedPieceSize = 16'384;
constexpr qint64 maxBufferedBytes = 1'048'576; // in the socket; one larger record may wait alone

} // namespace

SpoolSender::SpoolSender(QTcpSocket &tcpLink, SpoolKeeper &spoolKeeper, Counters &countedIn,
    MessageSink messages, const Times &timeLimits, WriteFile write)
    : link(tcpLink)
    , keeper(spoolKeeper)
    , counters(countedIn)
    , log(std::move(messages))
    , times(timeLimits)
    , writeFile(std::move(write))
    , onItsWay(spoolKeeper, countedIn, timeLimits.acknowledgement)
    , lock(spoolKeeper.directory(), log)
    , quiet(spoolKeeper.directory())
{
    listingTimer.setSingleShot(true);
    checkTimer.setSingleShot(true);
    checkTimer.setTimerType(Qt::PreciseTimer);
    connect(&listingTimer, &QTimer::timeout, this, &SpoolSender::continueListing);
    connect(&checkTimer, &QTimer::timeout, this, &SpoolSender::checkAcknowledgements);
    connect(&link, &QAbstractSocket::stateChanged, this, &SpoolSender::linkStateChanged);
    connect(&link, &QIODevice::bytesWritten, this, &SpoolSender::bytesWritten);
    connect(&link, &QIODevice::readyRead, this, &SpoolSender::readFromPeer);
    link.setReadBufferSize(times.acknowledgement ? maxUnreadNumberBytes : 0);
    connect(&keeper, &SpoolKeeper::gaveBack, this, &SpoolSender::send);
}

SpoolSender::~SpoolSender()
{
    waitForScan();
}

// --- the link ---

bool SpoolSender::linkUp()
{
    Q_ASSERT(thread() == QThread::currentThread());
    if (!onItsWay.linkUp(link.socketDescriptor(), times.deadAfter))
        return false;
    if (!keeper.sent().isEmpty() && !keeper.giveBack())
        resendJournal();
    return true;
}

// Sends records straight from the journal because the disk is too full to make files of them.
void SpoolSender::resendJournal()
{
    keeper.sent().journal().forEach([this](const Journal::Entry &entry) {
        const QByteArray record = LinkRecord::make(entry.content.toByteArray());
        onItsWay.addJournaled(entry.name.toByteArray(), entry.end, record.size());
        return writeToLink(record);
    });
    checkSoon();
}

// Handles every end of a link, whatever its cause.
void SpoolSender::linkStateChanged()
{
    if (link.state() != QAbstractSocket::UnconnectedState)
        return;
    dropListing();
    listingTimer.stop();
    checkTimer.stop();
    onItsWay.linkDown();
}

void SpoolSender::bytesWritten()
{
    // Left alone, the socket sends one piece of its buffer in each turn of the event loop. The bus
    // brings many records in one turn, so the buffer would fill up although the peer reads.
    link.flush();
    // Refilling a half-empty buffer is early enough: the kernel's own buffer keeps the link busy.
    if (!namesLeft.isEmpty() && link.bytesToWrite() <= maxBufferedBytes / 2
        && !listingTimer.isActive())
        listingTimer.start(0ms);
}

bool SpoolSender::hasRoomFor(qint64 bytes) const
{
    return onItsWay.hasRoomFor(bytes)
        && (link.bytesToWrite() == 0 || link.bytesToWrite() + bytes <= maxBufferedBytes);
}

// Given a pointer and a size, the socket copies small records together and sends many of them in
// one call. Given a QByteArray, it shares the array and copies nothing.
bool SpoolSender::writeToLink(const QByteArray &record)
{
    const qint64 count = record.size() < sharedPieceSize
        ? link.write(record.constData(), record.size())
        : link.write(record);
    return count == record.size();
}

void SpoolSender::sendKeepAlive()
{
    commit();
    const QByteArray record = LinkRecord::make(LinkRecord::keepAlive);
    if (writeToLink(record))
        onItsWay.addUnkept(record.size());
}

// --- acknowledgements ---

// The kernel has to be asked for its count. The numbers of the peer's program arrive by themselves.
void SpoolSender::checkSoon()
{
    checkWithin(times.acknowledgement ? longestCheck : shortestCheck);
}

void SpoolSender::checkWithin(std::chrono::milliseconds time)
{
    if (!onItsWay.isEmpty() && (!checkTimer.isActive() || checkTimer.intervalAsDuration() > time))
        checkTimer.start(time);
}

void SpoolSender::checkAcknowledgements()
{
    const bool hasFreed = onItsWay.freeAcknowledged();
    const OnItsWay::Fault fault = hasFreed ? OnItsWay::Fault::None : onItsWay.checkOverdue();
    if (fault != OnItsWay::Fault::None)
        return endLink(fault);
    if (!onItsWay.isEmpty())
        checkTimer.start(nextCheck(hasFreed));
    if (hasFreed && !namesLeft.isEmpty() && !listingTimer.isActive())
        listingTimer.start(0ms); // the next file may have waited for room or for its own name
}

std::chrono::milliseconds SpoolSender::nextCheck(bool hasFreed) const
{
    if (times.acknowledgement)
        return onItsWay.hasMoreToFree() ? shortestCheck : longestCheck;
    return hasFreed ? shortestCheck
                    : std::clamp<std::chrono::milliseconds>(
                        onItsWay.oldestAge() / checkShare, shortestCheck, longestCheck);
}

void SpoolSender::stop()
{
    Q_ASSERT(thread() == QThread::currentThread());
    commit();
    const QDeadlineTimer end(times.acknowledgement ? longestPeerWait : longestKernelWait);
    while (onItsWay.isLinkUp() && !onItsWay.isEmpty() && !end.hasExpired()) {
        if (!onItsWay.freeAcknowledged() && times.acknowledgement)
            link.waitForReadyRead(int(end.remainingTime()));
        else
            std::this_thread::sleep_for(shortestCheck);
    }
    onItsWay.linkDown();
}

// Unexpected bytes are read and dropped. Unread, they would pile up, or hide that the peer has
// closed the connection.
void SpoolSender::readFromPeer()
{
    if (!times.acknowledgement || !onItsWay.isLinkUp()) {
        link.skip(link.bytesAvailable());
        return;
    }
    const OnItsWay::Fault fault = onItsWay.acknowledge(link.readAll());
    if (fault != OnItsWay::Fault::None)
        return endLink(fault);
    checkWithin(shortestCheck); // one check serves all numbers that arrive until then
}

void SpoolSender::endLink(OnItsWay::Fault fault)
{
    if (fault != loggedFault || faultLogPause.hasExpired()) {
        log(textOf(fault));
        loggedFault = fault;
        faultLogPause.setRemainingTime(faultLogInterval);
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
    case OnItsWay::Fault::NumberFell:
        return tr("The peer acknowledges %1 records after %2: the link is ended")
            .arg(refused, stored);
    case OnItsWay::Fault::NumberTooHigh:
        return tr("The peer acknowledges %1 records, which it cannot have: the link is ended")
            .arg(refused);
    case OnItsWay::Fault::Overdue:
        return tr("The peer has acknowledged %1 records and no more in time: the link is ended")
            .arg(stored);
    }
    return {};
}

// --- the direct path ---

void SpoolSender::checkDirectPath()
{
    const bool isLinkReady = link.state() == QAbstractSocket::ConnectedState && onItsWay.isLinkUp();
    const bool isIdle = !scan && namesLeft.isEmpty() && !listAgain;
    directPath = isLinkReady && isIdle && quiet.isQuiet() ? DirectPath::Open : DirectPath::Closed;
}

bool SpoolSender::sendAtOnce(const DataRecord &record)
{
    Q_ASSERT(thread() == QThread::currentThread());
    if (directPath == DirectPath::Unknown)
        checkDirectPath(); // once for all records of one read of the bus
    if (directPath == DirectPath::Closed)
        return false;
    // Closed until this record has been taken: if it becomes a file, no later one may overtake it.
    directPath = DirectPath::Closed;
    const QByteArray name = QFile::encodeName(record.fileName);
    const qsizetype size = record.kind.size() + record.payload.size();
    Journal &journal = keeper.sent().journal();
    if (!isPlainName(record.fileName) || !quiet.canHold(name) || onItsWay.holdsFile(record.fileName)
        || !hasRoomFor(outgoing.size() + LinkRecord::lengthSize + size)
        || !journal.hasRoomFor(name.size(), size))
        return false;
    const quint64 end = journal.add(name, FileTime::now(), record.kind, record.payload);
    LinkRecord::append(outgoing, record.kind, record.payload);
    staged.push_back({name, end, LinkRecord::lengthSize + size});
    directPath = DirectPath::Open;
    return true;
}

void SpoolSender::commit()
{
    Q_ASSERT(thread() == QThread::currentThread());
    Q_ASSERT(staged.empty() == outgoing.isEmpty());
    directPath = DirectPath::Unknown;
    if (staged.empty())
        return;
    if (!keeper.sent().journal().commit())
        return spillStaged();
    for (const Staged &record : staged) {
        onItsWay.addJournaled(record.name, record.journalEnd, record.linkBytes);
        counters.accepted.add(record.linkBytes - LinkRecord::lengthSize);
        counters.sent.add(record.linkBytes - LinkRecord::lengthSize);
    }
    staged.clear();
    const QByteArray records = std::exchange(outgoing, {});
    std::ignore = link.write(records); // on failure the link ends, which gives the records back
    link.flush();
    checkSoon();
}

// Makes files of the staged records because the journal could not be written.
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
    Q_ASSERT(thread() == QThread::currentThread());
    if (link.state() != QAbstractSocket::ConnectedState || !onItsWay.isLinkUp())
        return;
    if (scan || !namesLeft.isEmpty()) {
        listAgain = true;
        return;
    }
    beginListing({});
    continueListing();
}

void SpoolSender::beginListing(const QByteArray &after)
{
    Q_ASSERT(!scan && !scanner.joinable() && namesLeft.isEmpty());
    scan.emplace(keeper.directory(), after);
    onItsWay.rememberNames();
}

// Returns whether no other process holds the lock of the spool. If one does, continues the listing
// later. If the lock is stuck, gives the listing up: everything stays in the spool until the next
// send().
bool SpoolSender::checkLock()
{
    switch (lock.removeIfStale()) {
    case SpoolLock::State::Free:
        return true;
    case SpoolLock::State::Held:
        listingTimer.start(lockRetryInterval);
        return false;
    case SpoolLock::State::Stuck:
        dropListing();
        return false;
    }
    return false;
}

// Sends a slice of the current listing. Continues it later when the slice's time is over, when the
// socket is full, or when a record must wait for acknowledgements.
void SpoolSender::continueListing()
{
    Q_ASSERT(thread() == QThread::currentThread());
    const QDeadlineTimer deadline(listingSliceTime);
    if (!checkLock() || (scan && !continueScan()))
        return;
    while (!namesLeft.isEmpty()) {
        if (deadline.hasExpired()) {
            link.flush();
            return listingTimer.start(0ms);
        }
        if (sendFile(namesLeft.first()) == Attempt::Postponed)
            return checkSoon();
        if (namesLeft.isEmpty())
            break; // the link has ended during sendFile()
        lastListedName = namesLeft.firstName();
        namesLeft.removeFirst();
    }
    endOfListing();
}

// Reads and sorts a few thousand names at once. More names would keep the bus waiting, so another
// thread finishes the scan.
bool SpoolSender::continueScan()
{
    if (scanner.joinable())
        return false;
    if (!scan->readUntil(QDeadlineTimer(shortScan))) {
        scanner = std::thread([this] {
            std::ignore = scan->readUntil(QDeadlineTimer::Forever);
            QMetaObject::invokeMethod(
                this, [this] { takeScan(); }, Qt::QueuedConnection);
        });
        return false;
    }
    isListingCutOff = scan->isCutOff();
    namesLeft = scan->takeNames();
    scan.reset();
    return true;
}

void SpoolSender::takeScan()
{
    Q_ASSERT(thread() == QThread::currentThread());
    Q_ASSERT(scanner.joinable());
    waitForScan();
    if (!std::exchange(isScanObsolete, false))
        return continueListing();
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
    namesLeft = SpoolListing();
    listAgain = isListingCutOff = false;
    isScanObsolete = scanner.joinable(); // takeScan() drops the result
    if (!isScanObsolete)
        scan.reset();
}

void SpoolSender::endOfListing()
{
    checkSoon();
    const bool isMoreWaiting = std::exchange(isListingCutOff, false);
    namesLeft = SpoolListing();
    if (!isMoreWaiting && !std::exchange(listAgain, false))
        return;
    // The timer keeps these calls from nesting when another writer changes a file all the time.
    beginListing(isMoreWaiting ? lastListedName : QByteArray());
    listingTimer.start(0ms);
}

// Passes over a file that cannot be opened, read or sent: it stays in the spool.
SpoolSender::Attempt SpoolSender::sendFile(const QString &name)
{
    const SpoolFile file = keeper.directory().open(name);
    if (!file.isOpen())
        return Attempt::Finished;
    if (onItsWay.holds(name) || !hasRoomFor(LinkRecord::lengthSize + file.mark().size))
        return Attempt::Postponed;
    std::optional<QByteArray> record = file.read(LinkRecord::lengthSize);
    if (!record)
        return Attempt::Finished;
    LinkRecord::complete(*record);
    const auto content = QByteArrayView(*record).sliced(LinkRecord::lengthSize);
    const SentFolder::Take taken = keeper.sent().take(name, file.mark(), content);
    if (taken == SentFolder::Take::Gone)
        return Attempt::Finished;
    if (taken == SentFolder::Take::Replaced) {
        listAgain = true; // the file that has taken its place has not been sent
        return Attempt::Finished;
    }
    if (taken == SentFolder::Take::NoRoom && !onItsWay.isEmpty())
        return Attempt::Postponed;
    sendRecord(name, file.mark(), *record, taken);
    return Attempt::Finished;
}

// Sends the record of a file, and remembers it according to where the file is now.
void SpoolSender::sendRecord(const QString &name, const SpoolFile::Mark &mark,
    const QByteArray &record, SentFolder::Take taken)
{
    const qint64 size = record.size();
    if (!writeToLink(record)) {
        if (taken == SentFolder::Take::Taken)
            keeper.sent().giveBack(name);
        return;
    }
    counters.sent.add(size - LinkRecord::lengthSize);
    if (taken == SentFolder::Take::Taken)
        onItsWay.addKept(name, size);
    else if (taken == SentFolder::Take::NoRoom)
        onItsWay.addListed(name, mark, size);
    else {
        Q_ASSERT(taken == SentFolder::Take::Stuck);
        onItsWay.addUnkept(size);
        Q_EMIT fileKept(keeper.directory().pathOf(name));
    }
}
