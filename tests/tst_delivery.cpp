#include "ModuleBench.h"
#include "Oracle.h"
#include "SentFolder.h"
#include "TcpPeer.h"
#include "WholeFile.h"

#include <QTest>

#include <netinet/in.h>

using namespace Qt::StringLiterals;

namespace {

// A port that answers no attempt until it is opened: its queue of connections is full.
class UnreachablePeer
{
public:
    explicit UnreachablePeer(TcpPeer &peer)
        : port(peer.serverPort())
    {
        peer.close();
        const int reuse = 1;
        ::setsockopt(queue.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto *place = reinterpret_cast<const sockaddr *>(&address);
        if (::bind(queue.get(), place, sizeof(address)) != 0 || ::listen(queue.get(), 0) != 0)
            qFatal("cannot listen");
        ::connect(client.get(), place, sizeof(address)); // fills the queue
    }

private:
    const quint16 port;
    const Descriptor queue{::socket(AF_INET, SOCK_STREAM, 0)};
    const Descriptor client{::socket(AF_INET, SOCK_STREAM, 0)};
};

} // namespace

class TestDelivery : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void backlogWaitsOnDiskAndAResetLosesNothing();
    void cleanCloseCausesNoDuplicate();
    void unreachablePeerLosesNothing();
    void newerRecordOfTheSameNameStands();
    void filesOfTheDeadComeBackAndThoseOfTheLivingStay();
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
    {
        const UnreachablePeer unreachable(peer);
        bench.module.Start();
        QTest::qWait(50); // the attempt is under way, and stays so
        oracle.put(bench, 50);
        QVERIFY(bench.spooled().isEmpty());
        QCOMPARE(filesBelow(bench.spool), 50);
    }
    QVERIFY(peer.listen(QHostAddress::LocalHost, port));
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

void TestDelivery::filesOfTheDeadComeBackAndThoseOfTheLivingStay()
{
    const Workplace place;
    const QString spool = place.makeFolder(u"spool"_s);
    for (const QString &name : {u"a"_s, u"b"_s, u"c"_s})
        place.writeFile(u"spool/"_s + name, "old");
    SentFolder living;
    living.setSpool(spool);
    const SpoolDirectory directory(spool);
    const auto take = [&](SentFolder &folder, const QString &name) {
        return folder.take(name, directory.mark(name)->inode) == SentFolder::Take::Done;
    };
    QVERIFY(take(living, u"a"_s));
    {
        SentFolder dead; // leaves its files as a killed process does
        dead.setSpool(spool);
        QVERIFY(take(dead, u"b"_s) && take(dead, u"c"_s));
    }
    place.writeFile(u"spool/c"_s, "new");

    // What has replaced a sent file is not taken for it.
    QCOMPARE(living.take(u"c"_s, directory.mark(u"c"_s)->inode + 1), SentFolder::Take::Replaced);

    living.recover();
    QCOMPARE(QDir(spool).entryList(QDir::Files), QStringList({u"b"_s, u"c"_s}));
    QCOMPARE(place.readFile(u"spool/c"_s), QByteArray("new"));
    living.giveBack(u"a"_s);
    living.close();
    QCOMPARE(filesBelow(spool), 3);
    QVERIFY(QDir(spool).entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot).isEmpty());
}

QTEST_GUILESS_MAIN(TestDelivery)
#include "tst_delivery.moc"
