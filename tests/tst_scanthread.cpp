#include "Descriptor.h"
#include "kit/Channel.h"
#include "kit/UdpRelay.h"
#include "test_object.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QNetworkInterface>
#include <QNetworkProxyFactory>

#include <atomic>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>
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
    Node(quint16 localPort, quint16 remotePort, const QString &spool, unsigned short timeout = 1,
        const QString &host = u"127.0.0.1"_s)
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
    void send(const QString &name, const Bytes &content)
    {
        put(name, content);
        thread.start();
    }
    bool holds(const QString &name) const { return QFile::exists(directory + u'/' + name); }
    qsizetype saidCount(const QString &text) const { return lines.filter(text).size(); }

    const QString directory;
    QStringList lines;
    ScanThread thread;
};

// Sends a datagram with a wrong checksum. The kernel announces it, because it verifies the checksum
// of a large datagram only when it is read. Returns false without the right to do so.
bool sendDamaged(quint16 port)
{
    const Descriptor raw(::socket(AF_INET, SOCK_RAW, IPPROTO_UDP));
    const quint16 datagram[50] = {htons(port), htons(port), htons(sizeof(datagram)), 0xBAD};
    const sockaddr_in host = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    const auto *address = reinterpret_cast<const sockaddr *>(&host);
    return ::sendto(raw.get(), datagram, sizeof(datagram), 0, address, sizeof(host)) > 0;
}

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
        QLoggingCategory::setFilterRules(u"morvane.transfer.debug=true"_s);
    }
    void init()
    {
        sentPackages = receivedPackages = 0;
        folder.emplace();
        QVERIFY(QDir::setCurrent(folder->path()) && chmod(".", 0777) == 0);
        leftPort = freeUdpPort();
        rightPort = freeUdpPort();
    }

    void filesGoInNameOrderOnceTheLockIsGone();
    void whatCannotBeSentIsSetAsideOrTriedAgain();
    void aFileReplacedWhileThePortIsTakenIsSentInItsTurn();
    void aFileThatThePeerLosesIsSentAfresh();
    void nothingIsSentToItselfFromItsFolderOrWithoutANumericAddress();
    void onlyThePeerIsHeardAndCannotFillTheLog();
    void stopWaitsForNoCompression();

private:
    std::optional<Folder> folder;
    quint16 leftPort = 0, rightPort = 0;
};

void tst_scanthread::filesGoInNameOrderOnceTheLockIsGone()
{
    // The longest tick holds no receiver up.
    Node left(leftPort, rightPort, u"left"_s, 0), right(rightPort, leftPort, u"right"_s, 65'535);
    left.put(u"b2"_s, noise(1'000'000, 1));
    left.put(u"A1"_s, "first");
    qint64 pause = 0; // milliseconds before a delivered file is removed
    connect(&left.thread, &ScanThread::LogMessage, this, [&](const Bytes &line) {
        if (line.endsWith("A1"))
            pause = sincePackage.elapsed();
    });
    const QString lock = folder->writeFile(u"left/.lock"_s, "");
    folder->writeFile(u".incoming-1"_s, "left by a killed receiver");
    left.thread.start();
    right.send(u"g"_s, "in a minute");
    QTRY_COMPARE(left.saidCount(u"left/.lock"_s), 1); // a long wait is reported
    QVERIFY(!QFile::exists(u"A1"_s) && QFile::remove(lock));
    QTRY_VERIFY(QFile::exists(u"b2"_s));
    QVERIFY2(pause > 250, qPrintable(QString::number(pause))); // 500, less what came late
    QTRY_VERIFY((QCoreApplication::processEvents(), sincePackage.hasExpired(200))); // delivered
    left.thread.finish(); // does not wait before it removes the file
    QCOMPARE(left.lines.sliced(1),
        QStringList({u"Transmitted file left/A1"_s, u"Transmitted file left/b2"_s}));
    QVERIFY(!left.holds(u"b2"_s) && folder->readFile(u"b2"_s) == noise(1'000'000, 1));
    QCOMPARE(folder->readFile(u"A1"_s), "first");
    QVERIFY(!QFile::exists(u".incoming-1"_s) && !QFile::exists(u"g"_s) && right.holds(u"g"_s));
    const TransferCounters &counters = left.thread.counters();
    QVERIFY(counters.filesDelivered == 2 && right.thread.counters().filesReceived == 2);
    QVERIFY(counters.packetsRepeated >= 2); // packet 0 leaves twice
}

void tst_scanthread::whatCannotBeSentIsSetAsideOrTriedAgain()
{
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    const QString tooLong(98, u'f');
    left.put(u"f"_s, "unreadable");
    left.put(tooLong, "one");
    left.put(u"g"_s, "not removable");
    QCOMPARE(::mknod("left/\xff", S_IFREG | 0600, 0), 0); // is no name that can be sent
    QVERIFY(chmod("left", 0555) == 0 && chmod("left/f", 0) == 0);
    {
        const uid_t user = ::geteuid(); // root may read and remove anything
        std::ignore = ::seteuid(user == 0 ? 65'534 : user);
        const auto rightsBack = qScopeGuard([user] { std::ignore = ::seteuid(user); });
        left.thread.start();
        QTRY_COMPARE(left.saidCount(u"Can't delete file left/g"_s), 2);
    }
    QCOMPARE(left.saidCount(u"Transmitted file left/g"_s), 2);
    QVERIFY(left.saidCount(u"can't move it"_s) == 1 && left.saidCount(u"Can't move file "_s) == 1);
    QVERIFY(left.holds(u"f"_s) && folder->readFile(u"left/g"_s) == "not removable");
    QVERIFY(chmod("left", 0755) == 0 && chmod("left/f", 0644) == 0);
    left.put(tooLong, "changed");
    QTRY_VERIFY(!left.holds(u"f"_s) && !left.holds(u"g"_s) && !left.holds(tooLong));
    QCOMPARE(folder->readFile(u"f"_s), "unreadable");
    QCOMPARE(left.saidCount(u"Can't read file left/f"_s), 1);
    QCOMPARE(folder->readFile(u"left/refused/"_s + tooLong), "changed");
    QCOMPARE(left.thread.counters().filesRefused, 2);
    QCOMPARE(::unlink("left/refused/\xff"), 0); // QTemporaryDir cannot remove it
}

void tst_scanthread::aFileReplacedWhileThePortIsTakenIsSentInItsTurn()
{
    std::optional<QUdpSocket> other(std::in_place);
    QVERIFY(other->bind(leftPort));
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"f"_s, "old");
    QElapsedTimer sinceStart;
    sinceStart.start();
    left.thread.start();
    QTRY_VERIFY(sentPackages > 0); // handed over
    QVERIFY(sinceStart.hasExpired(990)); // answers to a killed process are let pass before
    QTRY_VERIFY(sentPackages > 20 && receivedPackages == 0); // none leaves from another port
    left.put(u"f"_s, "new");
    QCOMPARE(left.saidCount(u"Can't use UDP port %1"_s.arg(leftPort)), 1);
    other.reset();
    QTRY_COMPARE(folder->readFile(u"f"_s), "old"); // half a second
    QTRY_VERIFY(!left.holds(u"f"_s));
    QCOMPARE(left.saidCount(u"Transmitted file left/f"_s), 2);
    QCOMPARE(folder->readFile(u"f"_s), "new");
    QCOMPARE(left.saidCount(u"UDP port"_s), 2);
}

void tst_scanthread::aFileThatThePeerLosesIsSentAfresh()
{
    Node left(leftPort, rightPort, u"left"_s);
    left.thread.setPatience(std::chrono::milliseconds(500));
    left.put(u"f"_s, noise(50'000, 1));
    left.send(u"e"_s, "of two packets");
    QTRY_VERIFY(sentPackages > 0);
    QUdpSocket peer; // has the first one, and then both, but counts five
    for (const quint16 number : {quint16(0), quint16(1)})
        peer.writeDatagram(Packet::makeAcknowledgement({0, 0}, 41, {&number, 1}, 1 + 4 * number),
            QHostAddress::LocalHost, leftPort);
    QTRY_COMPARE(left.saidCount(u"The peer has lost part of file left/e"_s), 1);
    QVERIFY(left.holds(u"e"_s));
    QTRY_VERIFY(sentPackages > 100); // nobody is there yet
    std::optional<Node> right(std::in_place, rightPort, leftPort, u"right"_s);
    QTRY_VERIFY(!left.holds(u"e"_s));
    receivedPackages = 0;
    QTRY_VERIFY(receivedPackages > 50);
    right.reset(); // is restarted in the middle of a file
    QVERIFY(left.holds(u"f"_s) && !QFile::exists(u"f"_s));
    right.emplace(rightPort, leftPort, u"right"_s);
    QTRY_VERIFY(!left.holds(u"f"_s));
    QVERIFY(folder->readFile(u"f"_s) == noise(50'000, 1));
    QCOMPARE(left.saidCount(u"left/f, it is sent afresh"_s), 1);
}

void tst_scanthread::nothingIsSentToItselfFromItsFolderOrWithoutANumericAddress()
{
    QUdpSocket peer;
    QVERIFY(peer.bind(rightPort));
    const QString own = QNetworkInterface::allAddresses().constLast().toString();
    for (const QString &host :
        {u"localhost"_s, u"0.0.0.0"_s, u"::ffff:0.0.0.0"_s, u"127.0.0.2"_s, own}) {
        const bool isItself = host == u"127.0.0.2"_s || host == own; // would answer itself
        Node left(leftPort, isItself ? leftPort : rightPort, u"left"_s, 1, host);
        sentPackages = 0;
        left.send(u"f"_s, "stays");
        QTRY_VERIFY2(sentPackages > 20, qPrintable(host));
        QVERIFY2(!peer.hasPendingDatagrams() && receivedPackages == 0, qPrintable(host));
        QVERIFY2(left.holds(u"f"_s) && left.lines.size() == 1, qPrintable(host));
        QVERIFY2(left.saidCount(isItself ? u"is this module itself"_s
                                         : u"\"%1\" is not the numeric"_s.arg(host)),
            qPrintable(host));
    }
    Node node(leftPort, rightPort, u"."_s);
    node.send(u"f"_s, "stays");
    QTRY_COMPARE(node.saidCount(u"is the working directory"_s), 1);
    QVERIFY(node.thread.wait(longestWait));
}

void tst_scanthread::onlyThePeerIsHeardAndCannotFillTheLog()
{
    Node node(leftPort, rightPort, u"left"_s, 1, u"127.0.0.2"_s);
    node.thread.setOnlyPeer(true);
    node.thread.setMaxReceivedBytes(8);
    const bool isDamaged = sendDamaged(leftPort); // does not deafen it
    QCoreApplication::processEvents(); // notified of nothing else
    const Bytes packets[] = {Packet::makeData({0, 0}, 9, 0, InformationRecord{1, "f"}.write()),
        Packet::makeData({0, 0}, 9, 1, qCompress("nine bytes").sliced(4))};
    for (const QString &host : {u"127.0.0.3"_s, u"127.0.0.2"_s}) {
        QUdpSocket sender;
        QVERIFY(sender.bind(QHostAddress(host)));
        for (int i = 0; i < 50; ++i)
            sender.writeDatagram(packets[i % 2], QHostAddress::LocalHost, leftPort);
    }
    QTRY_COMPARE(node.saidCount(u"left out for a minute"_s), 1);
    QCOMPARE(node.saidCount(u"f is not written, it has more than 8 bytes"_s), 20);
    QCOMPARE(node.saidCount(u"127.0.0.3 are dropped"_s), 1);
    QCOMPARE(receivedPackages, 50);
    if (!isDamaged)
        QSKIP("no right to send damaged datagrams");
}

void tst_scanthread::stopWaitsForNoCompression()
{
    Node left(leftPort, rightPort, u"left"_s, 0);
    QFile large(u"left/f"_s);
    QVERIFY(large.open(QFile::WriteOnly) && large.resize(8'000'000'000)); // takes many seconds
    const std::clock_t idle = std::clock();
    left.thread.start();
    QTRY_VERIFY(std::clock() - idle > CLOCKS_PER_SEC / 5); // it is busy
    left.thread.stop();
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents(); // would begin to send the file
    QVERIFY(sentPackages == 0 && left.holds(u"f"_s));
}

QTEST_GUILESS_MAIN(tst_scanthread)
#include "tst_scanthread.moc"
