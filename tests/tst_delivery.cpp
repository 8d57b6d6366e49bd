#include "ModuleBench.h"
#include "Oracle.h"
#include "SentFolder.h"
#include "TcpPeer.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestDelivery : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void backlogWaitsOnDiskAndAResetLosesNothing();
    void cleanCloseCausesNoDuplicate();
    void unreachablePeerLosesNothing();
    void newerRecordOfTheSameNameStands();
    void newerFilesStandWhenOldOnesComeBack();
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
    QCOMPARE(filesBelow(bench.spool), 501);

    peer.reading = true;
    peer.reset();
    QTRY_VERIFY_WITH_TIMEOUT(oracle.hasLast(peer.bodies), 20'000);
    QCOMPARE(oracle.judge(peer, 0), QString());
    QTRY_COMPARE(filesBelow(bench.spool), 0);
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
    QTRY_COMPARE(
        QDir(bench.spool).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList());
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
    QVERIFY(bench.spooled().isEmpty());
    QTRY_COMPARE(bench.spooled().size(), 50); // the attempt is given up
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
    QCOMPARE(filesBelow(bench.spool), 2);
    peer.reading = true;
    peer.reset();
    QTRY_COMPARE_WITH_TIMEOUT(peer.bodies.size(), 1, 20'000);
    QCOMPARE(peer.bodies.first().back(), '2');
    QTRY_COMPARE(filesBelow(bench.spool), 0);
}

void TestDelivery::newerFilesStandWhenOldOnesComeBack()
{
    const Workplace place;
    const QString spool = place.makeFolder(u"spool"_s);
    const SpoolDirectory directory(spool);
    place.writeFile(u"spool/f"_s, "old");
    {
        SentFolder dead; // leaves its file as a killed process does
        dead.setSpool(spool);
        QCOMPARE(dead.take(u"f"_s, directory.mark(u"f"_s)->inode), SentFolder::Take::Done);
    }
    place.writeFile(u"spool/f"_s, "new");
    SentFolder living;
    living.setSpool(spool);
    // What has replaced a sent file is not taken for it.
    QCOMPARE(living.take(u"f"_s, directory.mark(u"f"_s)->inode + 1), SentFolder::Take::Replaced);
    living.recover();
    QCOMPARE(place.readFile(u"spool/f"_s), QByteArray("new"));
    living.close();
    QCOMPARE(QDir(spool).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList{u"f"_s});
}

QTEST_GUILESS_MAIN(TestDelivery)
#include "tst_delivery.moc"
