#include "FileTime.h"
#include "KeptRecords.h"
#include "Leftovers.h"
#include "ModuleBench.h"
#include "Oracle.h"
#include "SentFolder.h"
#include "SmallDisk.h"
#include "SpoolKeeper.h"

#include <QSignalSpy>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// Errors for which functions of the C library fail, by their stand-ins below; 0 for none.
static std::atomic<int> lockError, moveError, flushError;
static std::atomic<int> flushes, journalFlushes;
static std::atomic<bool> isFlushHeld;

template <typename... Arguments>
static int callOrFail(int error, long number, Arguments... arguments)
{
    errno = error;
    return error == 0 ? int(::syscall(number, arguments...)) : -1;
}

int flock(int file, int operation) noexcept
{
    return callOrFail(lockError, SYS_flock, file, operation);
}

int renameat(int from, const char *name, int to, const char *newName) noexcept
{
    return callOrFail(moveError, SYS_renameat2, from, name, to, newName, 0);
}

int syncfs(int file) noexcept
{
    const int error = flushError; // before anyone sees the count
    ++flushes;
    while (isFlushHeld)
        ::usleep(1'000);
    return callOrFail(error, SYS_syncfs, file);
}

int fdatasync(int file)
{
    ++journalFlushes;
    return callOrFail(0, SYS_fdatasync, file);
}

namespace {

const QByteArray acknowledged = "Acknowledgements=1\n"; // by the peer's program
const QByteArray large(100'000, 'x'); // beyond a limit of 50'000 bytes

// A module and its peer, and the oracle that knows what goes from one to the other.
struct Line
{
    void start()
    {
        bench.module.Start();
        QTRY_VERIFY(peer.socket);
    }
    void put(int count) { oracle.put(bench, count); }
    [[nodiscard]] qsizetype kept() const { return keptRecords(bench.spool).size(); }
    // Why the peer has lost its links, without the words that are always there.
    [[nodiscard]] QString ends() const
    {
        QString lines = bench.place.logged().filter(u": the link is ended"_s).join(u'\n');
        return lines.remove(u"The peer "_s).remove(u": the link is ended"_s);
    }
    // Everything arrives, and nothing stays behind.
    void settle(int mostDuplicates = 0)
    {
        QTRY_VERIFY(oracle.hasLast(peer.bodies));
        QCOMPARE(oracle.judge(peer, mostDuplicates), QString());
        QTRY_COMPARE(kept(), 0);
    }

    const QByteArray settings = {};
    const qsizetype payloadBytes = 100;
    TcpPeer peer{};
    ModuleBench bench{tcpSettings(peer) + settings};
    Oracle oracle{payloadBytes};
};

// A spool, and what is said when leftovers go back into it.
struct Spool
{
    const Workplace place;
    const SpoolDirectory directory{place.makeFolder(u"spool"_s)};
    QStringList said;
    Leftovers leftovers{directory, [this](const QString &text) { said.append(text); }};
};

// Puts a record on its way: it is in the journal, and has not been acknowledged.
void hold(
    SentFolder &owner, const QByteArray &name, const QByteArray &payload = "x", qint64 time = 1)
{
    if (!owner.open())
        qFatal("cannot make a folder of sent files");
    owner.journal().add(name, time, "error", payload);
    if (!owner.journal().commit())
        qFatal("cannot write a journal");
}

// Puts an old or a new record on its way in two ways: in the journal, and as a file.
void leave(const Spool &spool, SentFolder &owner, const QString &name, const QByteArray &content)
{
    const bool isOld = content == "old";
    hold(owner, "j" + name.toLatin1(), content, isOld ? 1 : 2);
    setAge(spool.place.writeFile(u"spool/"_s + name, content), isOld ? 2h : 1h);
    const SpoolFile::Mark mark = *spool.directory.mark(name);
    const auto take = [&](qint64 step, const QByteArray &read) {
        // The inode may change by itself.
        return owner.take(name, {mark.inode + 1, mark.modified + step, mark.size, true}, read);
    };
    QCOMPARE(take(1, content), SentFolder::Take::Replaced); // has changed since it was read
    QCOMPARE(take(0, "not it"), SentFolder::Take::Replaced);
    QCOMPARE(take(0, content), SentFolder::Take::Taken);
}

// The peer's program as it acknowledges five records.
struct Program
{
    QList<quint64> numbers;
    QString said = {}; // when its link is ended
    int again = 0; // so many come again, over a new link
    int timeout = 60; // seconds
    int piece = 8; // bytes of the numbers that arrive at once
    int pause = 0; // milliseconds before each number
};

QStringList filesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files, QDir::Name);
}

} // namespace

class TestDelivery : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanup()
    {
        lockError = moveError = flushError = flushes = journalFlushes = 0;
        isFlushHeld = false;
    }
    void backlogWaitsOnDiskAndOutagesLoseNothing();
    void newerRecordOfTheSameNameStands();
    void othersFilesGoInTheirTurn();
    void fileThatCannotLeaveTheSpool();
    void journalThatCannotBeWrittenOrGivenBack();
    void programThatAcknowledges_data();
    void programThatAcknowledges();
    void keepAlivesCountButEndNoLink();
    void unacknowledgedRecordsAreBoundedAndLastNumbersCount();
    void fileWaitsForTheRecordOfItsName();
    void leftoversOfSeveralOwnersGoBackByAge();
    void leftoversOfOthersStay();
    void recordThatCannotGoBackYetStays();
    void failuresAreSaidOnceAndTriedAgain();
    void whateverEntersTheSpoolIsFlushed();
    void powerCutPutsYoungFilesInDoubt();
};

void TestDelivery::backlogWaitsOnDiskAndOutagesLoseNothing()
{
    Line line{{}, 100'000};
    line.peer.reading = false;
    line.peer.setKernelBuffer(16'384); // no record is acknowledged until it is read
    line.put(500);
    line.bench.module.Start();
    // 1 MiB waits in the socket, and the kernel takes what it likes.
    QTRY_VERIFY(line.bench.spooled().size() < 495);
    qsizetype left = 0; // until it takes no more
    QTRY_VERIFY(std::exchange(left, line.bench.spooled().size()) == line.bench.spooled().size());
    line.put(1);
    QVERIFY2(line.bench.spooled().size() > 350, "the socket has taken more than it may");
    QCOMPARE(line.kept(), 501);
    line.peer.reading = true;
    line.peer.reset();
    for (int outage = 0; outage < 3; ++outage) {
        QTRY_VERIFY(line.oracle.hasLast(line.peer.bodies));
        line.peer.socket->close();
        line.peer.socket = nullptr;
        QTRY_VERIFY(line.peer.socket);
        line.put(20);
    }
    line.settle();
    line.put(1); // nothing else is on its way
    line.settle();
    const SpoolDirectory spool(line.bench.spool);
    QTRY_VERIFY((QMetaObject::invokeMethod(qApp, "aboutToQuit"),
        SentFolder::namesIn(spool).isEmpty())); // once all is flushed
}

void TestDelivery::newerRecordOfTheSameNameStands()
{
    Line line{acknowledged + "AcknowledgementTimeout=1\n"};
    line.peer.reading = false;
    line.peer.setKernelBuffer(16'384); // no record arrives whole before it is read
    line.bench.module.Start();
    // The first is on its way and the last still in the spool when the link breaks.
    line.bench.record("error", u"f"_s, QByteArray(40'000'000, '1'));
    QTRY_VERIFY(line.bench.spooled().isEmpty());
    line.bench.record("error", u"f"_s, QByteArray(40'000'000, '2'));
    QCOMPARE(line.kept(), 2);
    QTest::qWait(1'500);
    QCOMPARE(line.peer.linkStarts.size(), 1); // nothing is overdue before it has arrived
    line.peer.reading = line.peer.acknowledging = true;
    line.peer.reset();
    QTRY_COMPARE(line.peer.bodies.size(), 1);
    QCOMPARE(line.peer.bodies.first().back(), '2');
    QTRY_COMPARE(line.kept(), 0);
}

void TestDelivery::othersFilesGoInTheirTurn()
{
    Line line;
    const Workplace &place = line.bench.place;
    QVERIFY(QFile::resize(place.writeFile(u"spool/0"_s, "too large"), 5'000'000'000));
    const QString lock = place.writeFile(u"spool/.lock"_s, "");
    line.bench.module.Start();
    QTRY_COMPARE(line.bench.place.logged().filter(u"Waiting for the lock file"_s).size(), 1);
    flushes = 0;
    place.writeFile(u"spool/1"_s, "1");
    QTRY_VERIFY(flushes > 0); // files of others are brought to the disk, too
    QCOMPARE(line.peer.bodies, QByteArrayList());
    QVERIFY(QFile::remove(lock));
    QTRY_COMPARE(line.peer.bodies, QByteArrayList{"1"});
    QCOMPARE(line.bench.spooled(), QStringList{u"0"_s});
    QVERIFY(QFile::remove(line.bench.spool + u"/0"_s));

    line.bench.record("error", QString(256, u'n'), "a name that no file can have");
    line.bench.record("error", u"at once"_s, "");
    QTRY_COMPARE(line.peer.bodies.last(), "error");
    place.writeFile(u"spool/2"_s, "2");
    line.bench.record("error", u"3"_s, "3"); // does not overtake it
    QTRY_COMPARE(line.peer.bodies, QByteArrayList({"1", "error", "2", "error3"}));
}

void TestDelivery::fileThatCannotLeaveTheSpool()
{
    // The full disk leaves room for no move; what may not be moved is sent again.
    const std::pair<int, QString> rows[] = {
        {ENOSPC, u"g"_s}, {ENOSPC, u"f"_s}, {EPERM, u"g"_s}, {0, u"f"_s}};
    for (const auto &[error, next] : rows) {
        const int again = error == EPERM ? 1 : 0;
        Line line{acknowledged};
        line.bench.command("Input_Data_On");
        line.bench.record("error", u"f"_s, "1");
        moveError = error;
        line.bench.module.Start();
        QTRY_COMPARE(line.peer.bodies.size(), 1);
        moveError = 0;
        line.bench.record("error", next, next.toLatin1());
        QVERIFY2(error != 0 || !line.bench.spooled().isEmpty(), "it overtakes a file of its name");
        line.peer.acknowledging = true;
        line.peer.acknowledge(1);
        QTRY_COMPARE(line.kept(), 0);
        QTRY_COMPARE(line.peer.bodies.join(' '),
            QByteArray("error1 ").repeated(1 + again) + "error" + next.toLatin1());
        const QString said = u"Can not delete file "_s + line.bench.spool + u"/f"_s;
        QTRY_COMPARE(line.bench.reports().filter(said).size(), again);
    }
}

void TestDelivery::journalThatCannotBeWrittenOrGivenBack()
{
    Line line{acknowledged, 100'000};
    // Of a killed process.
    hold(*std::make_unique<SentFolder>(SpoolDirectory(line.bench.spool)), "f");
    const QString inItsWay = line.bench.place.makeFolder(u"spool/f"_s);
    line.start();
    QVERIFY(QDir().rmdir(inItsWay));
    QTRY_COMPARE(line.peer.bodies, QByteArrayList{"errorx"});
    line.peer.acknowledge(1);
    line.put(3);
    QTRY_COMPARE(line.peer.bodies.size(), 4);
    QTRY_COMPARE(line.kept(), 3);

    const FileLimit limit(50'000);
    line.bench.record("error", u"small"_s, "");
    QTRY_COMPARE(line.peer.bodies.size(), 5);
    QCOMPARE(line.kept(), 4); // one of them as a file
    line.peer.reset();
    QTRY_COMPARE(line.peer.bodies.size(), 9);
    QCOMPARE(line.peer.bodies.sliced(5), line.peer.bodies.sliced(1, 4));
    line.peer.acknowledging = true;
    line.peer.acknowledge(4);
    QTRY_COMPARE(line.kept(), 0);
    QCOMPARE(line.bench.place.logged().filter(u"cannot go back"_s).size(), 2);
}

void TestDelivery::programThatAcknowledges_data()
{
    QTest::addColumn<Program>("program");
    const auto row = [](const char *name, const Program &p) { QTest::newRow(name) << p; };
    row("slowly", {.numbers = {1, 2, 5}, .timeout = 5, .pause = 1'800});
    row("again and again, in single bytes", {.numbers = {0, 2, 2, 3, 5, 5, 5}, .piece = 1});
    row("too few", {{3}, u"has acknowledged 3 records and no more in time"_s, 2, 4});
    row("backwards", {{3, 2, 5}, u"acknowledges 2 records after 3"_s, 2});
    row("backwards, and without an end",
        {QList<quint64>{1, 0} + QList<quint64>(20'000, 5), u"acknowledges 0 records after 1"_s, 4});
    row("one too many", {{6, 5}, u"acknowledges 6 records, which it cannot have"_s, 5});
    row("far too many",
        {{~quint64(0)}, u"acknowledges 18446744073709551615 records, which it cannot have"_s, 5});
}

void TestDelivery::programThatAcknowledges()
{
    QFETCH(const Program, program);
    const int again = program.again;
    Line line{acknowledged + "StatusFile=FOLDER/s.prom\nAcknowledgementTimeout="
        + QByteArray::number(program.timeout) + '\n'};
    line.start();
    line.put(5);
    QTRY_COMPARE(line.peer.bodies.size(), 5);
    QTest::qWait(100);
    QCOMPARE(line.kept(), 5); // whatever the kernel says
    for (const quint64 number : program.numbers) {
        QTest::qWait(program.pause);
        if (line.peer.linkStarts.size() == 1) // these numbers are about the first link
            line.peer.acknowledge(number, program.piece);
    }
    line.peer.acknowledging = true; // what comes over a new link
    QTRY_COMPARE(line.kept(), 0);
    QCOMPARE(line.peer.bodies, line.oracle.all() + line.oracle.all().last(again));
    line.put(1);
    QTRY_COMPARE(line.kept(), 0);
    QCOMPARE(line.peer.linkStarts.size(), again == 0 ? 1 : 2);
    QCOMPARE(line.ends(), program.said);
    line.bench.module.reportEnd();
    const QByteArray page = line.bench.place.readFile(u"s.prom"_s);
    const QByteArray end = "_total{module=\"me\"} " + QByteArray::number(again) + '\n';
    QVERIFY(page.contains("records_given_back" + end) && page.contains("records_repeated" + end));
    QVERIFY2(journalFlushes < 10, "the same records are flushed again and again");
}

void TestDelivery::fileWaitsForTheRecordOfItsName()
{
    Line line{acknowledged};
    line.start();
    for (const QString &name : {u"first"_s, u"f"_s, u"g"_s}) {
        line.bench.record("error", name, "");
        QTRY_VERIFY(line.peer.bodies.size() > 0); // the link is up: no record becomes a file
    }
    QTRY_COMPARE(line.peer.bodies.size(), 3);
    line.bench.place.writeFile(u"spool/f"_s, "newer");
    line.bench.record("error", u"h"_s, ""); // has to wait for that file
    QTest::qWait(100);
    QCOMPARE(line.peer.bodies.size(), 3);
    line.peer.acknowledge(2);
    QTRY_COMPARE(line.peer.bodies.size(), 5);
    QMetaObject::invokeMethod(qApp, "aboutToQuit"); // what is not acknowledged goes back
    QCOMPARE(line.bench.spooled(), u"f g h"_s.split(u' '));
}

void TestDelivery::keepAlivesCountButEndNoLink()
{
    Line line{acknowledged + "AcknowledgementTimeout=0\nLiveMessageTimeout=1\n"}; // 0 is 1
    line.bench.module.Start();
    QTRY_VERIFY(line.peer.bodies.size() >= 3);
    QCOMPARE(line.peer.bodies.count("live"), line.peer.bodies.size());
    QCOMPARE(line.peer.linkStarts.size(), 1);
    const qint64 start = FileTime::ofClock(CLOCK_REALTIME);
    line.bench.record("error", u"f"_s, "");
    QTRY_VERIFY(line.peer.bodies.contains("error"));
    line.peer.acknowledge(3);
    QTRY_VERIFY(!line.ends().isEmpty());
    QVERIFY(FileTime::age(start) >= 1s);
    QTRY_VERIFY(line.peer.linkStarts.size() >= 3);
    // Once for both, until there is a fault of another kind.
    QCOMPARE(line.ends(), u"has acknowledged 3 records and no more in time"_s);
    QTRY_VERIFY((line.peer.acknowledge(99), line.ends().contains(u"acknowledges 99 records"_s)));
    line.peer.acknowledging = true;
    QTRY_COMPARE(line.kept(), 0);
}

// A program may not acknowledge what its kernel has not got, though the module has sent it.
void TestDelivery::unacknowledgedRecordsAreBoundedAndLastNumbersCount()
{
    Line line{acknowledged, 100'000};
    TcpPeer &peer = line.peer;
    peer.setKernelBuffer(65'536); // less than what waits in the module for it
    line.start();
    line.put(200);
    QTRY_VERIFY(peer.bodies.size() >= 80);
    const std::clock_t before = std::clock();
    QTest::qWait(500);
    QVERIFY2(std::clock() - before < CLOCKS_PER_SEC / 5, "waiting keeps a core busy");
    QVERIFY(peer.bodies.size() <= Journal::defaultBytes / 100'000);
    QCOMPARE(line.bench.spooled().size() + peer.bodies.size(), 200);
    peer.setReading(false);
    peer.acknowledge(quint64(peer.bodies.size()));
    QTRY_VERIFY(line.bench.spooled().size() < 115);
    peer.acknowledge(quint64(200 - line.bench.spooled().size()));
    QTRY_COMPARE(peer.linkStarts.size(), 2);
    peer.acknowledging = true;
    peer.setReading(true);
    line.settle(100);
    peer.acknowledging = false;
    line.put(5);
    QTRY_VERIFY(line.oracle.hasLast(peer.bodies));
    const quint64 stored = quint64(peer.bodies.size() - peer.linkStarts.last());
    peer.socket->write(LinkRecord::acknowledgement(stored) + '?'); // a part of the next number
    peer.socket->flush();
    peer.reset();
    line.put(1); // cannot be sent, and the number has not been read yet
    QCOMPARE(line.kept(), 1);
    peer.acknowledging = true;
    line.settle(100);
}

// Two owners that were killed hold the same names as files and as records of their journals.
void TestDelivery::leftoversOfSeveralOwnersGoBackByAge()
{
    Spool spool;
    const Workplace &place = spool.place;
    {
        SentFolder one(spool.directory), other(spool.directory);
        leave(spool, one, u"f"_s, "old");
        leave(spool, other, u"f"_s, "new");
        leave(spool, one, u"g"_s, "new"); // whoever is found first
        leave(spool, other, u"g"_s, "old");
        QVERIFY(Journal::noteSynced(one.journal().descriptor(), 1)); // before the other began
    }
    qint64 synced = 0;
    QVERIFY(spool.leftovers.giveBack({}, [&](qint64 time) { synced = time; }));
    QCOMPARE(synced, 1);
    for (const QString &name : {u"f"_s, u"g"_s}) {
        QCOMPARE(place.readFile(u"spool/"_s + name), QByteArray("new"));
        QCOMPARE(place.readFile(u"spool/j"_s + name), QByteArray("errornew"));
    }
    QCOMPARE(spool.said, QStringList());
    QCOMPARE(SentFolder::namesIn(spool.directory), QStringList());
    QCOMPARE(filesBelow(spool.directory.path()), 4);
}

void TestDelivery::leftoversOfOthersStay()
{
    for (const QString &whose : {u"another host"_s, u"another user"_s, u"no locks"_s, QString()}) {
        Spool spool;
        const QString path = spool.directory.path();
        spool.place.writeFile(u"spool/.sent-torn"_s, "not a folder");
        const QString link = spool.directory.pathOf(u".sent-link"_s);
        QVERIFY(QFile::link(spool.place.makeFolder(u"else"_s), link));
        spool.place.writeFile(u"else/mine"_s, "not a record");
        std::optional<SentFolder> owner(spool.directory);
        hold(*owner, "j");
        const QByteArray folder = spool.directory.encodedPathOf(owner->name());
        owner->close(); // keeps the folder, which is not empty
        if (!whose.isEmpty()) // else it lives
            owner.reset();
        if (whose == u"another host")
            QCOMPARE(ageJournals(path, {Journal::here().boot, Journal::here().host}), 1);
        if (whose == u"another user") {
            QVERIFY(::chmod(qPrintable(QDir::tempPath()), 0755) == 0 && ::chmod(folder, 0) == 0);
            std::ignore = ::seteuid(65'534); // nobody; root would see all
        }
        lockError = whose == u"no locks" ? ENOLCK : 0;
        const bool isDone = spool.leftovers.giveBack() && spool.leftovers.giveBack();
        lockError = 0;
        std::ignore = ::seteuid(::getuid());
        QVERIFY2(isDone && ::chmod(folder, 0700) == 0, qPrintable(whose));
        QVERIFY2(
            spool.said.size() == (whose.isEmpty() ? 0 : 1) && spool.said.value(0).contains(whose),
            qPrintable(whose + u": "_s + spool.said.join(u", "_s)));
        QVERIFY2(keptRecords(path).size() == 2 && filesIn(path).isEmpty(), qPrintable(whose));
        QCOMPARE(spool.place.readFile(u"else/mine"_s), "not a record");
    }
}

void TestDelivery::recordThatCannotGoBackYetStays()
{
    for (const bool byItsOwner : {true, false}) {
        Spool spool;
        const SpoolDirectory &directory = spool.directory;
        std::optional<SentFolder> owner(directory);
        for (const char *name : {"../outside", "small", "large"})
            hold(*owner, name, *name == 'l' ? large : "x");
        spool.place.writeFile(u"spool/file"_s, "y");
        QCOMPARE(owner->take(u"file"_s, *directory.mark(u"file"_s), "y"), SentFolder::Take::Taken);
        spool.place.makeFolder(u"spool/file"_s); // in its way
        if (!byItsOwner)
            owner.reset();
        const auto back = [&] { return owner ? owner->giveAllBack() : spool.leftovers.giveBack(); };
        {
            const FileLimit limit(50'000);
            QVERIFY(!back());
            QVERIFY(directory.remove(u"small"_s)); // it is sent
            QVERIFY(!back());
        }
        QCOMPARE(filesBelow(spool.place.path()), 2); // the journal and the file
        QVERIFY(!back());
        QVERIFY(QDir(directory.path()).rmdir(u"file"_s));
        QVERIFY(back());
        QCOMPARE(filesIn(directory.path()), QStringList({u"file"_s, u"large"_s}));
        QCOMPARE(spool.place.readFile(u"spool/large"_s), "error" + large);
        QCOMPARE(spool.said.size(), byItsOwner ? 0 : 1);
    }
}

void TestDelivery::failuresAreSaidOnceAndTriedAgain()
{
    const Workplace ours, theirs;
    QStringList said;
    const MessageSink report = [&](const QString &text) { said.append(text); };
    SpoolKeeper owner(SpoolDirectory(ours.path()), report);
    SpoolKeeper heir(SpoolDirectory(theirs.path()), report);
    const QSignalSpy ownersBack(&owner, &SpoolKeeper::gaveBack);
    const QSignalSpy heirsBack(&heir, &SpoolKeeper::gaveBack);
    hold(owner.sent(), "f", large);
    hold(*std::make_unique<SentFolder>(heir.directory()), "f", large);

    std::optional<FileLimit> limit(50'000);
    flushError = EIO;
    const qint64 start = FileTime::ofClock(CLOCK_REALTIME);
    QVERIFY(!owner.giveBack());
    QTest::qSleep(20); // the clock of files goes in steps
    heir.start();
    QVERIFY(heir.write(u"small"_s, "x") == SpoolDirectory::WriteResult::Written);
    QTRY_VERIFY(flushes >= 4);
    QVERIFY2(FileTime::age(start) > 5s, "a failed flush is repeated at once");
    QVERIFY(heir.sent().journal().syncedUntil() < start);
    QTRY_COMPARE(said.size(), 4);

    limit.reset();
    flushError = 0;
    QTRY_COMPARE(ownersBack.size() + heirsBack.size(), 2);
    for (const char *text : {"cannot go back", "Can't bring", "brought to the disk again"})
        QTRY_COMPARE(said.filter(QLatin1StringView(text)).size(), 2);
    QCOMPARE(ours.readFile(u"f"_s), "error" + large);
    QCOMPARE(theirs.readFile(u"f"_s), "error" + large);
    QTRY_VERIFY(heir.sent().journal().syncedUntil() > start);
}

void TestDelivery::whateverEntersTheSpoolIsFlushed()
{
    const Workplace place;
    const SpoolDirectory spool(place.path());
    hold(*std::make_unique<SentFolder>(spool), "of a killed process");
    SpoolKeeper keeper(spool, [](const QString &) {});
    const auto write = [&] { std::ignore = keeper.write(u"written"_s, "x"); };
    keeper.start();
    QTRY_COMPARE(flushes, 1);
    write();
    QTRY_COMPARE(flushes, 2);
    place.writeFile(u"others"_s, "x");
    keeper.flushFilesOfOthers();
    QTRY_COMPARE(flushes, 3);
    hold(keeper.sent(), "given back");
    QVERIFY(keeper.giveBack());
    QTRY_COMPARE(flushes, 4);
    isFlushHeld = true;
    write();
    QTRY_COMPARE(flushes, 5);
    keeper.stop();
    QCOMPARE(SentFolder::namesIn(spool).size(), 1); // puts in doubt what is not on the disk yet
    write(); // may be too late for the flush that is under way
    isFlushHeld = false;
    QTRY_COMPARE(flushes, 6);
    QTRY_VERIFY((keeper.stop(), SentFolder::namesIn(spool).isEmpty()));
    keeper.start();
    keeper.stop(); // what the first look gave back may not be on the disk either
    QCOMPARE(SentFolder::namesIn(spool).size(), 1);
    flushError = EIO;
    write();
    QTRY_COMPARE(flushes, 8); // a failed one is repeated
}

// Seconds from the last flush: just now; never, so the start counts; before the system started.
void TestDelivery::powerCutPutsYoungFilesInDoubt()
{
    for (const int flushed : {0, -1, 1'000'000'000}) {
        Spool spool;
        const auto write = [&](const QString &name) {
            QTest::qSleep(20); // the clock of files goes in steps
            spool.place.writeFile(u"spool/"_s + name, "x");
            QTest::qSleep(20);
        };
        write(u"old"_s);
        spool.place.makeFolder(u"spool/young folder"_s); // nobody's record
        {
            SentFolder dead(spool.directory), earlier(spool.directory);
            hold(dead, "whole");
            hold(earlier, "else");
            QVERIFY(Journal::noteSynced(earlier.journal().descriptor(), 1));
            const qint64 time = FileTime::now() - flushed * FileTime::perSecond;
            QVERIFY(flushed < 0 || Journal::noteSynced(dead.journal().descriptor(), time));
            write(u"taken"_s);
            QCOMPARE(dead.take(u"taken"_s, *spool.directory.mark(u"taken"_s), "x"),
                SentFolder::Take::Taken);
        }
        write(u"young"_s);
        QCOMPARE(ageJournals(spool.directory.path()), 2);
        QVERIFY(spool.leftovers.giveBack());
        const QString found = filesIn(spool.directory.path()).join(u' ') + u", not "_s
            + filesIn(spool.directory.pathOf(u"refused"_s)).join(u' ');
        QCOMPARE(u"%1: "_s.arg(flushed) + found,
            flushed > 0 ? u"1000000000: else old taken whole young, not "_s
                        : u"%1: else old whole, not taken young"_s.arg(flushed));
        QCOMPARE(spool.said.filter(u"surely on the disk"_s).size(), flushed > 0 ? 0 : 2);
    }
}

QTEST_GUILESS_MAIN(TestDelivery)
#include "tst_delivery.moc"
