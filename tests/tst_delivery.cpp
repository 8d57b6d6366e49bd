#include "KeptRecords.h"
#include "Leftovers.h"
#include "ModuleBench.h"
#include "Oracle.h"
#include "SentFolder.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

using namespace std::chrono_literals;

static bool areLocksMissing = false; // on the file system

// Stands in for the C library's flock().
int lockOrFail(int file, int operation) noexcept __asm__("flock");
int lockOrFail(int file, int operation) noexcept
{
    if (!areLocksMissing)
        return int(::syscall(SYS_flock, file, operation));
    errno = ENOLCK;
    return -1;
}

class TestDelivery : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void backlogWaitsOnDiskAndAResetLosesNothing();
    void cleanCloseCausesNoDuplicate();
    void unreachablePeerLosesNothing();
    void newerRecordOfTheSameNameStands();
    void programThatAcknowledges_data();
    void programThatAcknowledges();
    void keepAlivesCountButEndNoLink();
    void numbersBeforeTheEndCount();
    void unacknowledgedRecordsAreBounded();
    void leftoversOfSeveralOwnersGoBackByAge_data();
    void leftoversOfSeveralOwnersGoBackByAge();
    void leftoversOfOthersStay_data();
    void leftoversOfOthersStay();
    void powerCutPutsYoungFilesInDoubt();
};

void TestDelivery::backlogWaitsOnDiskAndAResetLosesNothing()
{
    TcpPeer peer;
    peer.reading = false;
    peer.setKernelBuffer(16'384); // no record is acknowledged until it is read
    ModuleBench bench(tcpSettings(peer));
    Oracle oracle(100'000);
    oracle.put(bench, 500);
    bench.module.Start();
    // 1 MiB waits in the socket, and the kernel takes what it likes.
    QTRY_VERIFY(bench.spooled().size() < 495);
    oracle.put(bench, 1);
    QVERIFY2(bench.spooled().size() > 350, qPrintable(QString::number(bench.spooled().size())));
    QCOMPARE(keptRecords(bench.spool).size(), 501);

    peer.reading = true;
    peer.reset();
    QTRY_VERIFY(oracle.hasLast(peer.bodies));
    QCOMPARE(oracle.judge(peer, 0), QString());
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
}

void TestDelivery::cleanCloseCausesNoDuplicate()
{
    TcpPeer peer;
    ModuleBench bench(tcpSettings(peer));
    Oracle oracle(1'000);
    bench.module.Start();
    QTRY_VERIFY(peer.socket);
    for (int outage = 0; outage < 3; ++outage) {
        oracle.put(bench, 200);
        QTRY_VERIFY(oracle.hasLast(peer.bodies));
        peer.socket->close();
        peer.socket = nullptr;
        QTRY_VERIFY(peer.socket);
    }
    oracle.put(bench, 1);
    QTRY_VERIFY(oracle.hasLast(peer.bodies));
    QCOMPARE(oracle.judge(peer, 0), QString());
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
}

void TestDelivery::unreachablePeerLosesNothing()
{
    TcpPeer peer;
    const quint16 port = peer.serverPort();
    ModuleBench bench(tcpSettings(peer));
    Oracle oracle(1'000);
    // A server whose queue of connections is full answers no attempt.
    peer.close();
    peer.setListenBacklogSize(0);
    QVERIFY(peer.listen(QHostAddress::LocalHost, port));
    peer.pauseAccepting();
    QTcpSocket queued;
    queued.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(queued.waitForConnected());

    bench.module.Start();
    oracle.put(bench, 50);
    QCOMPARE(bench.spooled().size(), 50); // the attempt moves none of them
    QTest::qWait(1'500);
    QCOMPARE(bench.spooled().size(), 50);
    peer.resumeAccepting();
    QTRY_VERIFY(oracle.hasLast(peer.bodies));
    QCOMPARE(oracle.judge(peer, 0), QString());
}

void TestDelivery::newerRecordOfTheSameNameStands()
{
    TcpPeer peer;
    peer.reading = false;
    ModuleBench bench(tcpSettings(peer));
    bench.module.Start();
    QTRY_VERIFY(peer.socket);
    // The first is on its way and the last still in the spool when the link breaks.
    bench.record("error", u"f"_s, QByteArray(40'000'000, '1'));
    bench.record("error", u"f"_s, QByteArray(40'000'000, '2'));
    QCOMPARE(keptRecords(bench.spool).size(), 2);
    peer.reading = true;
    peer.reset();
    QTRY_COMPARE(peer.bodies.size(), 1);
    QCOMPARE(peer.bodies.first().back(), '2');
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
}

void TestDelivery::programThatAcknowledges_data()
{
    QTest::addColumn<QList<quint64>>("numbers"); // for five records
    QTest::addColumn<int>("piece"); // bytes of them that arrive at once
    QTest::addColumn<int>("again"); // so many come again, over a new link
    QTest::addColumn<QString>("said"); // when the first one is ended
    const auto row = [](const char *name, const QList<quint64> &numbers, int piece = 8,
                         int again = 0, const char *said = "") {
        QTest::newRow(name) << numbers << piece << again << QString::fromLatin1(said);
    };
    row("late", {5});
    row("in single bytes", {1, 5}, 1);
    row("again and again", {0, 2, 2, 3, 5, 5, 5}, 3);
    row("never", {}, 8, 5, "has acknowledged 0 records and no more in time");
    row("too few", {3}, 8, 2, "has acknowledged 3 records and no more in time");
    row("backwards", {3, 2, 5}, 8, 2, "acknowledges 2 records after 3");
    row("backwards, and without an end", QList<quint64>{1, 0} + QList<quint64>(20'000, 5), 8, 4,
        "acknowledges 0 records after 1");
    row("one too many", {6, 5}, 8, 5, "acknowledges 6 records, which it cannot have");
    row("far too many", {~quint64(0)}, 8, 5,
        "acknowledges 18446744073709551615 records, which it cannot have");
}

void TestDelivery::programThatAcknowledges()
{
    QFETCH(const QList<quint64>, numbers);
    QFETCH(const int, piece);
    QFETCH(const int, again);
    QFETCH(const QString, said);
    TcpPeer peer;
    ModuleBench bench(tcpSettings(peer) + "Acknowledgements=1\nAcknowledgementTimeout=2\n");
    bench.module.Start();
    QTRY_VERIFY(peer.socket);
    Oracle oracle(100);
    oracle.put(bench, 5);
    QTRY_COMPARE(peer.bodies.size(), 5);
    QTest::qWait(100);
    QCOMPARE(keptRecords(bench.spool).size(), 5); // whatever the kernel says
    for (const quint64 number : numbers)
        peer.acknowledge(number, piece);
    peer.acknowledging = true; // what comes over a new link
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
    QCOMPARE(peer.bodies, oracle.all() + oracle.all().last(again));
    oracle.put(bench, 1);
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
    QCOMPARE(peer.linkStarts.size(), again == 0 ? 1 : 2);
    const QStringList lines = bench.place.logged().filter(u"the link is ended"_s);
    QCOMPARE(lines.size(), again == 0 ? 0 : 1);
    QVERIFY2(lines.value(0).contains(said), qPrintable(lines.value(0)));
}

void TestDelivery::keepAlivesCountButEndNoLink()
{
    TcpPeer peer;
    ModuleBench bench(
        tcpSettings(peer) + "Acknowledgements=1\nAcknowledgementTimeout=1\nLiveMessageTimeout=1\n");
    bench.module.Start();
    QTRY_COMPARE(peer.bodies, QByteArrayList(3, "live"));
    QCOMPARE(peer.linkStarts.size(), 1);
    bench.record("error", u"f"_s, "");
    QTRY_COMPARE(peer.bodies.last(), QByteArray("error"));
    peer.acknowledge(3);
    QTRY_COMPARE(peer.linkStarts.size(), 3);
    const QStringList lines = bench.place.logged().filter(u"the link is ended"_s);
    QCOMPARE(lines.size(), 1); // for both
    QVERIFY2(
        lines.first().contains(u" 3 records and no more in time"_s), qPrintable(lines.first()));
    peer.acknowledging = true;
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
}

void TestDelivery::numbersBeforeTheEndCount()
{
    TcpPeer peer;
    ModuleBench bench(tcpSettings(peer) + "Acknowledgements=1\n");
    bench.module.Start();
    QTRY_VERIFY(peer.socket);
    Oracle oracle(100);
    oracle.put(bench, 5);
    QTRY_COMPARE(peer.bodies.size(), 5);
    peer.acknowledge(5);
    peer.reset();
    oracle.put(bench, 1); // cannot be sent, and the numbers have not been read yet
    QCOMPARE(keptRecords(bench.spool).size(), 1);
    peer.acknowledging = true;
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
    QCOMPARE(oracle.judge(peer, 0), QString());
}

void TestDelivery::unacknowledgedRecordsAreBounded()
{
    TcpPeer peer;
    ModuleBench bench(tcpSettings(peer) + "Acknowledgements=1\n");
    bench.module.Start();
    QTRY_VERIFY(peer.socket);
    Oracle oracle(100'000);
    oracle.put(bench, 200);
    QTRY_VERIFY(peer.bodies.size() >= 80);
    const std::clock_t before = std::clock();
    QTest::qWait(500);
    QVERIFY2(std::clock() - before < CLOCKS_PER_SEC / 5, "waiting keeps a core busy");
    QVERIFY(peer.bodies.size() <= Journal::defaultBytes / 100'000);
    QCOMPARE(bench.spooled().size() + peer.bodies.size(), 200);

    // A program may not acknowledge what its kernel has not got, though the module has sent it.
    peer.stopReading();
    peer.acknowledge(quint64(peer.bodies.size()));
    QTRY_VERIFY(bench.spooled().size() < 100);
    peer.acknowledge(quint64(200 - bench.spooled().size()));
    QTRY_COMPARE(peer.linkStarts.size(), 2);
    peer.acknowledging = true;
    peer.resume();
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
    QCOMPARE(oracle.judge(peer, 100), QString());
}

void TestDelivery::leftoversOfSeveralOwnersGoBackByAge_data()
{
    QTest::addColumn<bool>("firstIsNewer");
    QTest::newRow("the newer one is found first") << true;
    QTest::newRow("the newer one is found last") << false;
}

// Two owners that were killed hold one name each as a file and as a record of the journal.
void TestDelivery::leftoversOfSeveralOwnersGoBackByAge()
{
    QFETCH(const bool, firstIsNewer);
    const Workplace place;
    const QString spool = place.makeFolder(u"spool"_s);
    const SpoolDirectory directory(spool);
    const auto leave = [&](const QByteArray &content, qint64 seconds) {
        SentFolder dead(spool);
        QVERIFY(dead.open());
        QFile file(place.writeFile(u"spool/f"_s, content));
        QVERIFY(file.open(QIODevice::ReadWrite));
        file.setFileTime(QDateTime::fromSecsSinceEpoch(seconds), QFile::FileModificationTime);
        file.close();
        // What has changed since it was read is not taken for it.
        SpoolFile::Mark mark = *directory.mark(u"f"_s);
        ++mark.modified;
        QCOMPARE(dead.take(u"f"_s, mark, content), SentFolder::Take::Replaced);
        --mark.modified;
        QCOMPARE(dead.take(u"f"_s, mark, content), SentFolder::Take::Taken);
        dead.journal().add("j", seconds * 1'000'000'000, "error", content);
        QVERIFY(dead.journal().commit());
    };
    leave(firstIsNewer ? "new" : "old", firstIsNewer ? 2'000 : 1'000);
    leave(firstIsNewer ? "old" : "new", firstIsNewer ? 1'000 : 2'000);
    place.writeFile(u"spool/.sent-torn"_s, "not a folder");
    QVERIFY(QFile::link(place.makeFolder(u"else"_s), spool + u"/.sent-link"_s));
    place.writeFile(u"else/mine"_s, "not a record");
    QStringList said;
    QVERIFY(Leftovers(spool, [&](const QString &text) { said.append(text); }).giveBack());
    QCOMPARE(place.readFile(u"spool/f"_s), QByteArray("new"));
    QCOMPARE(place.readFile(u"spool/j"_s), QByteArray("errornew"));
    QCOMPARE(said, QStringList());
    QCOMPARE(QDir(spool).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList({u".sent-link"_s, u".sent-torn"_s, u"f"_s, u"j"_s}));
    QCOMPARE(place.readFile(u"else/mine"_s), "not a record");
}

void TestDelivery::leftoversOfOthersStay_data()
{
    QTest::addColumn<QString>("whose");
    QTest::newRow("another host's") << u"another host"_s;
    QTest::newRow("another user's") << u"another user"_s;
    QTest::newRow("nobody can tell") << u"no locks"_s;
}

void TestDelivery::leftoversOfOthersStay()
{
    QFETCH(const QString, whose);
    const Workplace place;
    const QString spool = place.makeFolder(u"spool"_s);
    {
        SentFolder dead(spool);
        QVERIFY(dead.open());
        dead.journal().add("j", 1, "error", "x");
        QVERIFY(dead.journal().commit());
    }
    QStringList said;
    Leftovers leftovers(spool, [&](const QString &text) { said.append(text); });
    if (whose == u"another host")
        QCOMPARE(ageJournals(spool, {Journal::here().boot, Journal::here().host}), 1);
    const QString folder =
        QDir(spool).entryInfoList({u".sent-*"_s}, QDir::Dirs | QDir::Hidden)[0].filePath();
    if (whose == u"another user")
        QVERIFY(::chmod(qPrintable(QDir::tempPath()), 0755) == 0
            && ::chmod(qPrintable(folder), 0) == 0);
    constexpr uid_t nobody = 65'534;
    std::ignore = whose == u"another user" ? ::seteuid(nobody) : 0; // root would see all
    areLocksMissing = whose == u"no locks";
    QVERIFY(leftovers.giveBack() && leftovers.giveBack());
    areLocksMissing = false;
    std::ignore = ::seteuid(::getuid());
    QCOMPARE(::chmod(qPrintable(folder), 0700), 0);
    QCOMPARE(said.size(), 1);
    QVERIFY2(said.first().contains(whose), qPrintable(said.first()));
    QCOMPARE(keptRecords(spool).size(), 1);
    QVERIFY(QDir(spool).entryList(QDir::Files).isEmpty());
}

void TestDelivery::powerCutPutsYoungFilesInDoubt()
{
    const Workplace place;
    const QString spool = place.makeFolder(u"spool"_s);
    const auto write = [&](const QString &name) {
        QTest::qSleep(20); // the clock of files goes in steps
        place.writeFile(u"spool/"_s + name, "x");
        QTest::qSleep(20);
    };
    write(u"old"_s);
    {
        SentFolder dead(spool);
        QVERIFY(dead.open());
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        QVERIFY(Journal::noteSynced(dead.journal().descriptor(), now / 1ns));
        write(u"taken"_s);
        const SpoolFile::Mark mark = *SpoolDirectory(spool).mark(u"taken"_s);
        QCOMPARE(dead.take(u"taken"_s, mark, "x"), SentFolder::Take::Taken);
        dead.journal().add("whole", 1, "error", "x");
        QVERIFY(dead.journal().commit());
    }
    write(u"young"_s);
    QStringList said;
    const MessageSink report = [&](const QString &text) { said.append(text); };
    QCOMPARE(ageJournals(spool), 1);
    QVERIFY(Leftovers(spool, report).giveBack());
    QCOMPARE(QDir(spool).entryList(QDir::Files, QDir::Name), QStringList({u"old"_s, u"whole"_s}));
    QCOMPARE(QDir(spool + u"/refused"_s).entryList(QDir::Files, QDir::Name),
        QStringList({u"taken"_s, u"young"_s}));
    QCOMPARE(said.filter(u"surely on the disk"_s).size(), 2);
}

QTEST_GUILESS_MAIN(TestDelivery)
#include "tst_delivery.moc"
