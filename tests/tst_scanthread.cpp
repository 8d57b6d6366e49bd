#include "kit/Channel.h"
#include "test_object.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QNetworkProxyFactory>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

#include <atomic>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr unsigned short timeout = 1; // milliseconds from packet to packet
constexpr int longWait = 20'000; // milliseconds; some steps wait for seconds by design

std::atomic<int> sentPackages, receivedPackages; // by all nodes, as the debug lines have it
const QRegularExpression sentLine(u"^Send package    \"[0-9a-f]{30,}\" \\r\\n$"_s);
const QRegularExpression receivedLine(u"^Received package    \"[0-9a-f]{30,}\" \\r\\n$"_s);

void countPackages(QtMsgType, const QMessageLogContext &, const QString &line)
{
    sentPackages += sentLine.match(line).hasMatch();
    receivedPackages += receivedLine.match(line).hasMatch();
}

unsigned short freePort()
{
    QUdpSocket socket;
    socket.bind(0);
    return socket.localPort();
}

// A scan thread on a spool directory of its own, with all that it says.
struct Node
{
    Node(unsigned short localPort, unsigned short remotePort, const QString &spool,
        const QString &host = u"127.0.0.1"_s)
        : directory(spool)
    {
        QDir().mkpath(directory);
        thread.emplace(nullptr, localPort, remotePort, host, timeout, directory);
        QObject::connect(&*thread, &ScanThread::LogMessage, &*thread,
            [this](const Bytes &line) { lines.append(QString::fromUtf8(line)); });
    }
    void put(const QString &name, const Bytes &content) const
    {
        writeFile(directory + u"/.new"_s, content);
        std::rename(qPrintable(directory + u"/.new"_s), qPrintable(directory + u'/' + name));
    }
    bool holds(const QString &name) const { return QFile::exists(directory + u'/' + name); }
    qsizetype saidCount(const QString &text) const { return lines.filter(text).size(); }
    QString transmitted(const QString &name) const
    {
        return u"Transmitted file "_s + directory + u'/' + name;
    }

    QString directory;
    QStringList lines;
    std::optional<ScanThread> thread;
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
        leftPort = freePort();
        rightPort = freePort();
    }

    void filesGoBothWaysInNameOrder();
    void aLockHoldsEverythingBack();
    void refusedFilesAreSetAside();
    void anUnmovableRefusedFileIsPassedOver();
    void aFileThatCannotBeRemovedIsSentAgain();
    void aReplacedFileStaysAndIsSentInItsTurn();
    void aPeerThatIsAwayGetsTheFileOnceItIsThere();
    void aPeerRestartedInMidTransferGetsTheWholeFile();
    void aTakenPortIsSaidAndTakenLater();
    void nothingIsSentWithoutANumericAddress_data();
    void nothingIsSentWithoutANumericAddress();
    void stopWaitsForNoCompression();

private:
    std::optional<QTemporaryDir> folder;
    unsigned short leftPort = 0, rightPort = 0;
};

void tst_scanthread::filesGoBothWaysInNameOrder()
{
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"b2"_s, noise(5'000, 1));
    left.put(u"A1"_s, "first");
    right.put(u"back"_s, noise(20'000, 2));
    left.thread->start();
    right.thread->start();
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"b2"_s) && !right.holds(u"back"_s), longWait);
    QCOMPARE(contentOf(u"A1"_s), "first");
    QVERIFY(contentOf(u"b2"_s) == noise(5'000, 1));
    QVERIFY(contentOf(u"back"_s) == noise(20'000, 2));
    QTRY_COMPARE(left.lines, QStringList({left.transmitted(u"A1"_s), left.transmitted(u"b2"_s)}));
}

void tst_scanthread::aLockHoldsEverythingBack()
{
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"f"_s, "held back");
    writeFile(u"left/.lock"_s, "");
    left.thread->start();
    QTRY_COMPARE_WITH_TIMEOUT(left.saidCount(u"left/.lock"_s), 1, longWait); // a long wait is said
    QVERIFY(!QFile::exists(u"f"_s));
    QFile::remove(u"left/.lock"_s);
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"f"_s), longWait);
    QCOMPARE(contentOf(u"f"_s), "held back");
}

void tst_scanthread::refusedFilesAreSetAside()
{
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    const QString tooLong(98, u'f');
    left.put(tooLong, "one");
    left.put(u"good"_s, "good");
    left.thread->start();
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"good"_s), longWait);
    left.put(tooLong, "two");
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(tooLong), longWait);
    QCOMPARE(contentOf(u"left/refused/"_s + tooLong), "one");
    QCOMPARE(contentOf(u"left/refused/"_s + tooLong + u".1"_s), "two");
    QTRY_COMPARE(left.saidCount(u"Refused file left/"_s + tooLong), 2);
}

void tst_scanthread::anUnmovableRefusedFileIsPassedOver()
{
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    const QString tooLong(98, u'f');
    left.put(u"refused"_s, "the folder cannot be made");
    left.put(tooLong, "one");
    left.put(u"good"_s, "good");
    left.thread->start();
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"good"_s) && !left.holds(u"refused"_s), longWait);
    QCOMPARE(left.saidCount(u"can't move"_s), 1);
    left.put(tooLong, "changed");
    QTRY_COMPARE_WITH_TIMEOUT(contentOf(u"left/refused/"_s + tooLong), "changed", longWait);
}

void tst_scanthread::aFileThatCannotBeRemovedIsSentAgain()
{
    const uid_t user = geteuid();
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"f"_s, "stays");
    QVERIFY(chmod(qPrintable(folder->path()), 0777) == 0 && chmod("left", 0555) == 0);
    QVERIFY(user != 0 || seteuid(65'534) == 0); // root may remove anything
    left.thread->start();
    QTRY_VERIFY_WITH_TIMEOUT(left.saidCount(u"Can't delete file left/f"_s) == 2, longWait);
    left.thread->stop();
    QVERIFY(seteuid(user) == 0 && chmod("left", 0755) == 0);
    QCOMPARE(left.saidCount(left.transmitted(u"f"_s)), 2);
    QCOMPARE(contentOf(u"left/f"_s), "stays");
}

void tst_scanthread::aReplacedFileStaysAndIsSentInItsTurn()
{
    Node left(leftPort, rightPort, u"left"_s);
    left.put(u"f"_s, "old");
    left.thread->start();
    QTRY_VERIFY(sentPackages > 0); // handed over
    left.put(u"f"_s, "new");
    Node right(rightPort, leftPort, u"right"_s);
    QTRY_VERIFY_WITH_TIMEOUT(left.saidCount(left.transmitted(u"f"_s)) == 1, longWait);
    QCOMPARE(contentOf(u"f"_s), "old");
    QVERIFY(left.holds(u"f"_s));
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"f"_s), longWait);
    QCOMPARE(contentOf(u"f"_s), "new");
}

void tst_scanthread::aPeerThatIsAwayGetsTheFileOnceItIsThere()
{
    Node left(leftPort, rightPort, u"left"_s);
    left.put(u"f"_s, noise(50'000, 1));
    left.thread->start();
    QTRY_VERIFY(sentPackages > 100); // refused, for nobody is there
    std::optional<Node> right(std::in_place, rightPort, leftPort, u"right"_s);
    QTRY_VERIFY(receivedPackages > 50); // in mid-transfer
    left.thread->stop();
    left.thread.emplace(nullptr, leftPort, rightPort, u"127.0.0.1"_s, timeout, left.directory);
    left.thread->start();
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"f"_s), longWait);
    QVERIFY(contentOf(u"f"_s) == noise(50'000, 1));
}

void tst_scanthread::aPeerRestartedInMidTransferGetsTheWholeFile()
{
    Node left(leftPort, rightPort, u"left"_s);
    left.thread->setPatience(std::chrono::milliseconds(500));
    left.put(u"f"_s, noise(50'000, 1));
    left.thread->start();
    std::optional<Node> right(std::in_place, rightPort, leftPort, u"right"_s);
    QTRY_VERIFY(receivedPackages > 50);
    right.reset();
    QVERIFY(left.holds(u"f"_s) && !QFile::exists(u"f"_s));
    right.emplace(rightPort, leftPort, u"right"_s);
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"f"_s), longWait);
    QVERIFY(contentOf(u"f"_s) == noise(50'000, 1));
    QCOMPARE(left.saidCount(u"left/f, it is sent afresh"_s), 1);
}

void tst_scanthread::aTakenPortIsSaidAndTakenLater()
{
    std::optional<QUdpSocket> other(std::in_place);
    QVERIFY(other->bind(leftPort));
    Node left(leftPort, rightPort, u"left"_s), right(rightPort, leftPort, u"right"_s);
    left.put(u"f"_s, "patient");
    left.thread->start();
    QTRY_COMPARE(left.saidCount(u"Can't use UDP port %1"_s.arg(leftPort)), 1);
    other.reset();
    QTRY_VERIFY_WITH_TIMEOUT(!left.holds(u"f"_s), longWait);
    QCOMPARE(left.saidCount(u"UDP port"_s), 2);
    QCOMPARE(contentOf(u"f"_s), "patient");
}

void tst_scanthread::nothingIsSentWithoutANumericAddress_data()
{
    QTest::addColumn<QString>("host");
    QTest::newRow("name") << u"localhost"_s;
    QTest::newRow("nothing") << u""_s;
    QTest::newRow("any address") << u"0.0.0.0"_s;
}

// To its own port, the engine would acknowledge its own packets.
void tst_scanthread::nothingIsSentWithoutANumericAddress()
{
    QFETCH(QString, host);
    QUdpSocket peer;
    QVERIFY(peer.bind(rightPort));
    Node left(leftPort, rightPort, u"left"_s, host);
    left.put(u"f"_s, "stays");
    left.thread->start();
    QTRY_COMPARE(left.saidCount(u"numeric address"_s), 1);
    QTRY_VERIFY(sentPackages > 20);
    QVERIFY(!peer.hasPendingDatagrams());
    QCOMPARE(left.lines.size(), 1);
    QVERIFY(left.holds(u"f"_s));
}

void tst_scanthread::stopWaitsForNoCompression()
{
    Node left(leftPort, rightPort, u"left"_s);
    QFile large(u"left/f"_s);
    QVERIFY(large.open(QFile::WriteOnly) && large.resize(8'000'000'000)); // takes many seconds
    const std::clock_t idle = std::clock();
    left.thread->start();
    QTRY_VERIFY(std::clock() - idle > CLOCKS_PER_SEC / 5); // it is busy
    QElapsedTimer clock;
    clock.start();
    left.thread->stop();
    QVERIFY(left.thread->isFinished() && clock.elapsed() < 500);
    QVERIFY(left.holds(u"f"_s));
}

QTEST_GUILESS_MAIN(tst_scanthread)
#include "tst_scanthread.moc"
