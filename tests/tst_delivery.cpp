#include "KeptRecords.h"
#include "Leftovers.h"
#include "ModuleBench.h"
#include "Oracle.h"
#include "SentFolder.h"
#include "TcpPeer.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

class TestDelivery : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void backlogWaitsOnDiskAndAResetLosesNothing();
    void cleanCloseCausesNoDuplicate();
    void unreachablePeerLosesNothing();
    void newerRecordOfTheSameNameStands();
    void leftoversOfSeveralOwnersGoBackByAge_data();
    void leftoversOfSeveralOwnersGoBackByAge();
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
    QTRY_VERIFY(bench.spooled().size() < 490);
    oracle.put(bench, 1);
    QVERIFY2(bench.spooled().size() > 350, qPrintable(QString::number(bench.spooled().size())));
    QCOMPARE(keptRecords(bench.spool).size(), 501);

    peer.reading = true;
    peer.reset();
    QTRY_VERIFY_WITH_TIMEOUT(oracle.hasLast(peer.bodies), 20'000);
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
    QTRY_COMPARE_WITH_TIMEOUT(peer.bodies.size(), 1, 20'000);
    QCOMPARE(peer.bodies.first().back(), '2');
    QTRY_COMPARE(keptRecords(bench.spool).size(), 0);
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
    QStringList said;
    QVERIFY(Leftovers(spool, [&](const QString &text) { said.append(text); }).giveBack());
    QCOMPARE(place.readFile(u"spool/f"_s), QByteArray("new"));
    QCOMPARE(place.readFile(u"spool/j"_s), QByteArray("errornew"));
    QCOMPARE(said, QStringList());
    QCOMPARE(QDir(spool).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList({u".sent-torn"_s, u"f"_s, u"j"_s}));
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
    const Say say = [&](const QString &text) { said.append(text); };
    QCOMPARE(ageJournals(spool), 1);
    QVERIFY(Leftovers(spool, say).giveBack());
    QCOMPARE(QDir(spool).entryList(QDir::Files, QDir::Name), QStringList({u"old"_s, u"whole"_s}));
    QCOMPARE(QDir(spool + u"/refused"_s).entryList(QDir::Files, QDir::Name),
        QStringList({u"taken"_s, u"young"_s}));
    QCOMPARE(said.filter(u"surely on the disk"_s).size(), 2);
}

QTEST_GUILESS_MAIN(TestDelivery)
#include "tst_delivery.moc"
