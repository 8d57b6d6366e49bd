#include "kit/Channel.h"
#include "kit/DamagedDatagram.h"
#include "kit/UdpRelay.h"
#include "test_object.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QNetworkProxyFactory>

#include <atomic>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::atomic<int> sentPackages, receivedPackages; // by all nodes, as the debug lines have it
QElapsedTimer sincePackage;

void countPackages(QtMsgType, const QMessageLogContext &, const QString &line)
{
    const bool isWhole = line.endsWith("\" \r\n"_L1);
    if (isWhole)
        sincePackage.start();
    sentPackages += isWhole && line.startsWith("Send package    \"a4d5"_L1);
    receivedPackages += isWhole && line.startsWith("Received package    \"a4d5"_L1);
}

// A scan thread on a spool directory of its own, with the lines that it reports.
struct Node
{
    Node(quint16 localPort, quint16 remotePort, const QString &spool,
        const QString &host = u"127.0.0.1"_s, unsigned short timeout = 1)
        : directory(spool)
        , thread(nullptr, localPort, remotePort, host, timeout, directory)
    {
        QDir().mkpath(directory);
        QObject::connect(&thread, &ScanThread::LogMessage, &thread,
            [this](const Bytes &line) { lines.append(QString::fromUtf8(line)); });
    }
    void put(const QString &name, const Bytes &content) const
    {
        std::ignore = SpoolDirectory(directory).write(name, content, [](const QString &) {});
    }
    bool holds(const QString &name) const { return QFile::exists(directory + u'/' + name); }
    qsizetype saidCount(const QString &text) const { return lines.filter(text).size(); }

    const QString directory;
    QStringList lines;
    ScanThread thread;
};

} // namespace

// Every test has a folder of its own as working directory: received files land there, and spools
// are folders in it.
class tst_scanthread : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QNetworkProxyFactory::setUseSystemConfiguration(false); // it would start a thread
        qInstallMessageHandler(countPackages);
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
    }
    void init()
    {
        sentPackages = receivedPackages = 0;
        folder.emplace();
        QVERIFY(QDir::setCurrent(folder->path()));
        leftPort = freeUdpPort();
        rightPort = freeUdpPort();
    }

    void filesGoInNameOrderOnceTheLockIsGone();
    void refusedFilesAreSetAsideOrPassedOver();
    void unreadableFilesAreTriedAgain();
    void theLongestTickHoldsNoReceiverUp();
    void aFileThatCannotBeRemovedIsSentAgain();
    void aFileReplacedWhileThePortIsTakenIsSentInItsTurn();
    void aPeerRestartedInMidTransferGetsTheWholeFile();
    void nothingIsSentWithoutANumericAddress();
    void onlyThePeerIsHeard();
    void noDatagramThatTheKernelDropsDeafensIt();
    void stopWaitsForNoCompression();
    void withoutAFixedPaceFilesCrossBothWays();

private:
    std::optional<Folder> folder;
    quint16 leftPort = 0, rightPort = 0;
};

void tst_scanthread::filesGoInNameOrderOnceTheLockIsGone()
{
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"b2"_s, "second");
    left.put(u"A1"_s, "first");
    qint64 pause = 1'000; // milliseconds before a delivered file is removed, at the least
    connect(&left.thread, &ScanThread::LogMessage, this, [&](const Bytes &line) {
        if (line.startsWith("Transmitted"))
            pause = std::min(pause, sincePackage.elapsed());
    });
    const QString lock = folder->writeFile(u"left/.lock"_s, "");
    left.thread.start();
    QTRY_COMPARE(left.saidCount(u"left/.lock"_s), 1); // a long wait is reported
    QVERIFY(!QFile::exists(u"A1"_s) && QFile::remove(lock));
    QTRY_VERIFY(!left.holds(u"b2"_s));
    QCOMPARE(folder->readFile(u"A1"_s), "first");
    QCOMPARE(folder->readFile(u"b2"_s), "second");
    QTRY_COMPARE(left.lines.sliced(1),
        QStringList({u"Transmitted file left/A1"_s, u"Transmitted file left/b2"_s}));
    QVERIFY2(pause > 450, qPrintable(QString::number(pause))); // the timer is a coarse one
}

void tst_scanthread::refusedFilesAreSetAsideOrPassedOver()
{
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    const QString tooLong(98, u'f');
    left.put(u"refused"_s, "the folder cannot be made");
    left.put(tooLong, "one");
    left.put(u"good"_s, "good");
    left.thread.start();
    QTRY_VERIFY(!left.holds(u"good"_s) && !left.holds(u"refused"_s));
    QCOMPARE(left.saidCount(u"can't move"_s), 1);
    for (const char *content : {"changed", "again"}) {
        left.put(tooLong, content);
        QTRY_VERIFY(!left.holds(tooLong));
    }
    QCOMPARE(folder->readFile(u"left/refused/"_s + tooLong), "changed");
    QCOMPARE(folder->readFile(u"left/refused/"_s + tooLong + u".1"_s), "again");
}

void tst_scanthread::unreadableFilesAreTriedAgain()
{
    const uid_t user = geteuid();
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"f"_s, "secret");
    left.put(u"g"_s, "open");
    QVERIFY(chmod(qPrintable(folder->path()), 0777) == 0 && chmod("left", 0777) == 0);
    QVERIFY(chmod("left/f", 0) == 0);
    QVERIFY(user != 0 || seteuid(65'534) == 0); // root may read anything
    left.thread.start();
    QTRY_VERIFY(!left.holds(u"g"_s));
    QVERIFY(seteuid(user) == 0 && left.holds(u"f"_s) && chmod("left/f", 0644) == 0);
    QTRY_VERIFY(!left.holds(u"f"_s));
    QCOMPARE(folder->readFile(u"f"_s), "secret");
    QCOMPARE(left.saidCount(u"Can't read file left/f"_s), 1);
}

void tst_scanthread::theLongestTickHoldsNoReceiverUp()
{
    Node left(leftPort, rightPort, u"left"_s, u"127.0.0.1"_s, 0);
    Node right(rightPort, leftPort, u"right"_s, u"127.0.0.1"_s, 65'535);
    left.put(u"f"_s, noise(10'000, 1));
    right.put(u"g"_s, "in a minute");
    left.thread.start();
    right.thread.start();
    QTRY_VERIFY(!left.holds(u"f"_s));
    QVERIFY(folder->readFile(u"f"_s) == noise(10'000, 1));
    QVERIFY(right.holds(u"g"_s) && !QFile::exists(u"g"_s));
}

void tst_scanthread::aFileThatCannotBeRemovedIsSentAgain()
{
    const uid_t user = geteuid();
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"f"_s, "stays");
    QVERIFY(chmod(qPrintable(folder->path()), 0777) == 0 && chmod("left", 0555) == 0);
    QVERIFY(user != 0 || seteuid(65'534) == 0); // root may remove anything
    left.thread.start();
    QTRY_VERIFY(left.saidCount(u"Can't delete file left/f"_s) == 2);
    left.thread.stop();
    QVERIFY(seteuid(user) == 0 && chmod("left", 0755) == 0);
    QCOMPARE(left.saidCount(u"Transmitted file left/f"_s), 2);
    QCOMPARE(folder->readFile(u"left/f"_s), "stays");
}

void tst_scanthread::aFileReplacedWhileThePortIsTakenIsSentInItsTurn()
{
    std::optional<QUdpSocket> other(std::in_place);
    QVERIFY(other->bind(leftPort));
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"f"_s, "old");
    left.thread.start();
    QTRY_VERIFY(sentPackages > 0); // handed over
    left.put(u"f"_s, "new");
    QCOMPARE(left.saidCount(u"Can't use UDP port %1"_s.arg(leftPort)), 1);
    other.reset();
    QTRY_COMPARE(folder->readFile(u"f"_s), "old"); // half a second
    QTRY_VERIFY(!left.holds(u"f"_s));
    QCOMPARE(left.saidCount(u"Transmitted file left/f"_s), 2);
    QCOMPARE(folder->readFile(u"f"_s), "new");
    QCOMPARE(left.saidCount(u"UDP port"_s), 2);
}

void tst_scanthread::aPeerRestartedInMidTransferGetsTheWholeFile()
{
    Node left(leftPort, rightPort, u"left"_s);
    left.thread.setPatience(std::chrono::milliseconds(500));
    left.put(u"f"_s, noise(50'000, 1));
    left.thread.start();
    QTRY_VERIFY(sentPackages > 100); // refused, for nobody is there
    std::optional<Node> right(std::in_place, rightPort, leftPort, u"right"_s);
    QTRY_VERIFY(receivedPackages > 50);
    right.reset();
    QVERIFY(left.holds(u"f"_s) && !QFile::exists(u"f"_s));
    right.emplace(rightPort, leftPort, u"right"_s);
    QTRY_VERIFY(!left.holds(u"f"_s));
    QVERIFY(folder->readFile(u"f"_s) == noise(50'000, 1));
    QCOMPARE(left.saidCount(u"left/f, it is sent afresh"_s), 1);
}

// To its own port, the engine would acknowledge its own packets.
void tst_scanthread::nothingIsSentWithoutANumericAddress()
{
    QUdpSocket peer;
    QVERIFY(peer.bind(rightPort));
    for (const QString &host :
        {u"localhost"_s, u"0.0.0.0"_s, u"::ffff:0.0.0.0"_s, u"127.0.0.1"_s}) {
        sentPackages = 0;
        const bool isItself = host == u"127.0.0.1";
        Node left(leftPort, isItself ? leftPort : rightPort, u"left"_s, host);
        left.put(u"f"_s, "stays");
        left.thread.start();
        QTRY_VERIFY(sentPackages > 20);
        QVERIFY(!peer.hasPendingDatagrams() && left.holds(u"f"_s) && receivedPackages == 0);
        QCOMPARE(left.lines.size(), 1);
        QVERIFY(left.lines.first().contains(
            isItself ? u"is this module itself"_s : u"\"%1\" is not the numeric"_s.arg(host)));
    }
    Node received(leftPort, rightPort, u"."_s);
    received.put(u"f"_s, "stays");
    received.thread.start();
    QTRY_COMPARE(received.saidCount(u"is the working directory"_s), 1);
    QVERIFY(received.thread.wait(longestWait));
}

void tst_scanthread::onlyThePeerIsHeard()
{
    Node node(leftPort, rightPort, u"left"_s, u"127.0.0.2"_s);
    node.thread.setOnlyPeer(true);
    QUdpSocket stranger, peer;
    QVERIFY(stranger.bind(QHostAddress(u"127.0.0.3"_s)) && peer.bind(QHostAddress(u"127.0.0.2"_s)));
    for (QUdpSocket *socket : {&stranger, &stranger, &peer})
        socket->writeDatagram("\xA4\xD5", QHostAddress::LocalHost, leftPort);
    QTRY_COMPARE(receivedPackages, 1);
    QCOMPARE(node.saidCount(u"127.0.0.3 are dropped"_s), 1);
}

// The kernel announces some datagrams before it has verified their checksum.
void tst_scanthread::noDatagramThatTheKernelDropsDeafensIt()
{
    const Node node(leftPort, rightPort, u"left"_s);
    QUdpSocket peer;
    peer.setProxy(QNetworkProxy::NoProxy);
    const auto isHeard = [&] {
        const int before = receivedPackages;
        peer.writeDatagram("\xA4\xD5", QHostAddress::LocalHost, leftPort);
        return QTest::qWaitFor([&] { return receivedPackages > before; });
    };
    for (const char *host : {"127.0.0.1", "::1"}) {
        for (const int size : {0, 20, 100, 60'000}) {
            for (const quint16 checksum :
                {quint16(0xBAD), quint16(0)}) { // none at all is wrong over IPv6
                if (!sendDamaged(host, leftPort, size, checksum))
                    QSKIP("no right to send damaged datagrams");
                QCoreApplication::processEvents(); // notified of nothing else
                QVERIFY2(isHeard(),
                    qPrintable(u"%1, %2 bytes"_s.arg(QLatin1StringView(host)).arg(size)));
            }
        }
    }
}

void tst_scanthread::stopWaitsForNoCompression()
{
    Node left(leftPort, rightPort, u"left"_s);
    QFile large(u"left/f"_s);
    QVERIFY(large.open(QFile::WriteOnly) && large.resize(8'000'000'000)); // takes many seconds
    const std::clock_t idle = std::clock();
    left.thread.start();
    QTRY_VERIFY(std::clock() - idle > CLOCKS_PER_SEC / 5); // it is busy
    QElapsedTimer clock;
    clock.start();
    left.thread.stop();
    QVERIFY(left.thread.isFinished() && clock.elapsed() < 500);
    QVERIFY(left.holds(u"f"_s));
}

void tst_scanthread::withoutAFixedPaceFilesCrossBothWays()
{
    Node left(leftPort, rightPort, u"left"_s, u"127.0.0.1"_s, 0);
    Node right(rightPort, leftPort, u"right"_s, u"127.0.0.1"_s, 0);
    const Bytes content = noise(4'000'000, 1), other = noise(4'000'000, 2);
    left.put(u"f"_s, content);
    left.put(u"second"_s, other.first(10'000));
    right.put(u"g"_s, other);
    left.thread.start();
    right.thread.start();
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(u"f"_s) && QFile::exists(u"g"_s), 10'000); // takes 2 s
    QVERIFY(folder->readFile(u"f"_s) == content && folder->readFile(u"g"_s) == other);
    QTRY_VERIFY(folder->readFile(u"second"_s) == other.first(10'000));
}

QTEST_GUILESS_MAIN(tst_scanthread)
#include "tst_scanthread.moc"
