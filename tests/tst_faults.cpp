#include "BusFeeder.h"
#include "KeptRecords.h"
#include "ModuleProcess.h"
#include "Oracle.h"
#include "SmallDisk.h"
#include "UdpRelay.h"

#include <QRandomGenerator>

#include <csignal>
#include <sys/resource.h>

namespace {

constexpr int backlog = 1'000; // records that wait when a process starts
constexpr int recordBytes = 2'000; // of payload
constexpr int udpRecordBytes = 20'000; // a tenth of a second at a packet for each millisecond
constexpr int peerBuffer = 65'536; // bytes; what a peer that dies may have taken without reading
constexpr int windowRecords = 4 * peerBuffer / recordBytes; // the kernel may double it, and rounds
constexpr int unsentRecords = 131'072 / recordBytes + 1; // that the kernel sends after a kill
constexpr int unseenRecords = backlog / 2; // acknowledged since the last look: some milliseconds

// MORVANE_KILLS=100 build/dev/bin/tst_faults kills that often in every row, not just a few times.
int kills()
{
    return std::max(qEnvironmentVariableIntValue("MORVANE_KILLS"), 6);
}

qsizetype keptCount(const QString &spool)
{
    return keptRecords(spool).size();
}

// Of records of the bus that a peer reads at once, for one kill: what 25 milliseconds can hold.
constexpr int killDuplicates = 2'500;

QByteArray portLine(const char *key, quint16 port)
{
    return key + QByteArray::number(port) + '\n';
}

// The content of the numbered records of a folder, in order.
QByteArrayList recordsIn(
    const QString &folder, QDirIterator::IteratorFlags flags = QDirIterator::Subdirectories)
{
    const QMultiMap<QString, QByteArray> all = keptRecords(folder, flags);
    QByteArrayList records;
    for (auto record = all.begin(); record != all.end(); ++record) {
        if (record.key().size() == 6 && record.key().front().isDigit())
            records.append(record.value());
    }
    return records;
}

// A process in TCP mode, its peer, and the oracle that knows what goes from one to the other.
struct TcpLine
{
    explicit TcpLine(qsizetype payloadBytes = recordBytes, bool acknowledges = false)
        : oracle(payloadBytes)
    {
        peer.setKernelBuffer(peerBuffer);
        peer.acknowledging = acknowledges;
        settings = process.writeSettings(u"m.ini"_s, "AdminServerName=\n",
            portLine("Port=", peer.serverPort()) + portLine("Acknowledgements=", acknowledges));
    }
    void start() { process.startWith({u"-settings"_s, settings}); }

    // Kills the process. The peer reads what its kernel has taken.
    void kill()
    {
        process.killNow();
        QCoreApplication::processEvents(); // it may not know of the connection yet
        peer.resume();
        QTRY_VERIFY(!peer.socket || peer.socket->state() == QAbstractSocket::UnconnectedState);
    }

    // Without further faults everything arrives, a fresh record at last, and nothing stays behind.
    void settle(int mostMissing, int mostDuplicates)
    {
        oracle.put(process, 1);
        start();
        QTRY_COMPARE(keptCount(process.place.path(u"spool"_s)), 0);
        QTRY_VERIFY(oracle.hasLast(peer.bodies));
        QCOMPARE(oracle.judge(peer, mostDuplicates, mostMissing), QString());
        kill();
        oracle.settle();
        peer.bodies.clear();
        peer.linkStarts.clear();
    }

    // What the process had written when it was killed, and what the peer had got, was accepted.
    void countAccepted()
    {
        QByteArrayList bodies = peer.bodies + recordsIn(process.place.path(u"spool"_s));
        std::sort(bodies.begin(), bodies.end());
        oracle.acceptedUpTo(bodies.isEmpty() ? -1 : Oracle::numberIn(bodies.last()));
    }

    TcpPeer peer;
    ModuleProcess process;
    Oracle oracle;
    QString settings;
};

// One of two processes in UDP mode that send to each other.
struct UdpEnd
{
    void start(quint16 peerPort)
    {
        const QByteArray main = "Protocol=UDP\nTimeout=1\n" + portLine("LocalPort=", port)
            + portLine("Port=", peerPort);
        process.startWith(
            {u"-settings"_s, process.writeSettings(u"m.ini"_s, "AdminServerName=\n", main)});
    }
    [[nodiscard]] QByteArrayList received() const { return recordsIn(process.place.path(), {}); }

    const quint16 port = freeUdpPort();
    ModuleProcess process;
    Oracle oracle{udpRecordBytes}; // of what it sends
};

} // namespace

// The real process: killed at random moments under load, time and again (seeded, but for the time
// that the system takes), or left without room on its disk.
class TestFaults : public QObject
{
    Q_OBJECT
public:
    static void initMain() { qputenv("QTEST_FUNCTION_TIMEOUT", "3600000"); } // milliseconds

private Q_SLOTS:
    void killsLoseNothingOverTcp_data();
    void killsLoseNothingOverTcp();
    void killsLoseNothingOfTheBus();
    void stopTakesWhatTheBusHolds_data();
    void stopTakesWhatTheBusHolds();
    void killsLoseNothingOverUdp();
    void anotherSenderOfTheFolderIsLeftAlone();
    void fullDiskHealsByItself();
    void powerCutTakesLessThanASecond_data();
    void powerCutTakesLessThanASecond();

private:
    void pause(int most) { QTest::qWait(int(random.bounded(most))); }

    QRandomGenerator random{7};
};

void TestFaults::killsLoseNothingOverTcp_data()
{
    QTest::addColumn<bool>("stops");
    QTest::addColumn<bool>("resets");
    QTest::addColumn<bool>("acknowledges");
    QTest::newRow("a peer that reads") << false << false << false;
    QTest::newRow("a peer that stops reading") << true << false << false;
    QTest::newRow("a peer that resets") << false << true << false;
    QTest::newRow("a peer that dies with unread data") << true << true << false;
    QTest::newRow("a program that acknowledges and reads") << false << false << true;
    QTest::newRow("a program that acknowledges and dies") << true << true << true;
}

void TestFaults::killsLoseNothingOverTcp()
{
    QFETCH(const bool, stops);
    QFETCH(const bool, resets);
    QFETCH(const bool, acknowledges);
    TcpLine line(recordBytes, acknowledges);
    int resetLinks = 0, ends = 0; // of links, since all was settled
    for (int kill = 1; kill <= kills(); ++kill) {
        const qsizetype waiting = keptCount(line.process.place.path(u"spool"_s));
        line.oracle.put(line.process, std::max(backlog - int(waiting), 1));
        line.start();
        if (kill % 2 == 0)
            QTRY_VERIFY(line.peer.bodies.size() > 0);
        pause(50);
        if (stops)
            line.peer.stopReading();
        pause(50);
        if (resets && line.peer.socket && line.peer.socket->isValid()) {
            line.peer.reset();
            resetLinks += acknowledges ? 0 : 1; // nothing is lost
            ++ends;
        }
        pause(kill % 5 == 0 ? 1'500 : 100);
        line.kill();
        ++ends;
        if (kill % 10 == 0 || kill == kills()) {
            // What a kernel holds for a slow peer arrives after the kill, and again later.
            const int mostOfOne = stops ? windowRecords + unsentRecords : unseenRecords;
            const int mostTwice = std::exchange(ends, 0) * mostOfOne;
            line.settle(std::exchange(resetLinks, 0) * windowRecords, mostTwice);
        }
        if (QTest::currentTestFailed())
            return;
    }
}

void TestFaults::killsLoseNothingOfTheBus()
{
    for (int round = 0; round < kills(); round += 6) {
        // Side by side: a bus takes five seconds to start.
        std::array<TcpLine, 4> lines = {
            TcpLine(), TcpLine(), TcpLine(recordBytes, true), TcpLine(recordBytes, true)};
        for (TcpLine &line : lines)
            line.start();
        for (TcpLine &line : lines) {
            QTRY_VERIFY(line.process.isListening());
            BusFeeder feeder(line.process.place.path(u"me"_s));
            line.oracle.put(feeder, 20'000);
            pause(300);
            if (line.peer.acknowledging) { // and dies first: nothing that it has not read is lost
                line.peer.die();
                QTRY_COMPARE(line.peer.linkStarts.size(), 2);
                line.oracle.put(feeder, 1'000);
                pause(300);
            }
            line.kill();
            line.countAccepted();
            line.settle(0, line.peer.acknowledging ? INT_MAX : killDuplicates);
            if (QTest::currentTestFailed())
                return;
        }
    }
}

void TestFaults::stopTakesWhatTheBusHolds_data()
{
    QTest::addColumn<bool>("acknowledges");
    QTest::newRow("the peer's kernel acknowledges") << false;
    QTest::newRow("the peer's program acknowledges, late") << true;
}

void TestFaults::stopTakesWhatTheBusHolds()
{
    QFETCH(const bool, acknowledges);
    TcpLine line(recordBytes, acknowledges);
    line.peer.acknowledging = false;
    line.start();
    QTRY_VERIFY(line.process.isListening());
    const QString bus = line.process.place.path(u"me"_s);
    BusFeeder early(bus);
    const auto raise = [&](int signal) { ::kill(pid_t(line.process.processId()), signal); };
    raise(SIGSTOP);
    BusFeeder late(bus), later(bus), last(bus); // the module has not taken them yet
    for (BusFeeder *feeder : {&early, &late, &later, &last}) {
        line.oracle.put(*feeder, 20);
        QVERIFY(feeder->flush() && feeder->bytesToWrite() == 0);
    }
    raise(SIGTERM);
    raise(SIGCONT);
    if (acknowledges) {
        QTRY_COMPARE(line.peer.bodies.size(), 80);
        QTest::qWait(100);
        line.peer.acknowledge(80);
    }
    QTRY_COMPARE(line.process.state(), QProcess::NotRunning);
    QCOMPARE(line.process.exitCode(), 0);
    line.kill();
    QCOMPARE(line.oracle.missing(line.peer.bodies, line.oracle.count()), QList<int>());
    QCOMPARE(keptCount(line.process.place.path(u"spool"_s)), 0);
}

void TestFaults::killsLoseNothingOverUdp()
{
    std::array<UdpEnd, 2> ends;
    const auto start = [&](int index) { ends[index].start(ends[1 - index].port); };
    start(0);
    start(1);
    for (int kill = 0; kill < kills(); ++kill) {
        const int victim = int(random.bounded(2));
        for (UdpEnd &end : ends)
            end.oracle.put(end.process, std::max(3 - int(end.process.spooled().size()), 0));
        pause(1'000);
        ends[victim].process.killNow();
        for (int index : {0, 1}) {
            const QByteArrayList received = ends[index].received();
            QCOMPARE(received, ends[1 - index].oracle.first(received.size()));
        }
        start(victim);
    }
    for (UdpEnd &end : ends)
        end.process.killNow(); // a peer that has lost its memory may have stalled the other
    start(0);
    start(1);
    for (int index : {0, 1}) {
        QTRY_VERIFY(ends[index].process.spooled().isEmpty());
        QCOMPARE(ends[1 - index].received(), ends[index].oracle.all());
    }
}

void TestFaults::anotherSenderOfTheFolderIsLeftAlone()
{
    TcpLine first(4 * peerBuffer), second; // nothing is acknowledged until it is read
    first.peer.stopReading();
    first.oracle.put(first.process, 3);
    first.start();
    QTRY_VERIFY(first.process.spooled().isEmpty());
    const QString spool = first.process.place.path(u"spool"_s);

    const QByteArray folder = "TempDir=" + QFile::encodeName(spool) + '\n';
    second.settings = second.process.writeSettings(
        u"m.ini"_s, "AdminServerName=\n", folder + portLine("Port=", second.peer.serverPort()));
    first.process.record("error", u"other"_s, "x");
    second.start();
    QTRY_COMPARE(second.peer.bodies, QByteArrayList{"errorx"});
    QTRY_COMPARE(keptCount(spool), 3);

    first.kill();
    second.kill();
    second.start();
    QTRY_COMPARE(keptCount(spool), 0);
    QTRY_COMPARE(second.peer.bodies.size(), 4);
}

void TestFaults::fullDiskHealsByItself()
{
    TcpLine line;
    ModuleProcess &process = line.process;
    const QString spool = process.place.path(u"spool"_s);
    const SmallDisk disk(spool);
    if (!disk.make(u"2M"_s, u"-m 0 -N 2000"_s)
        && !shell(u"mount -t tmpfs -o size=1m none "_s + spool))
        QSKIP("only root may mount a small file system, and not everywhere");
    const quint16 port = line.peer.serverPort();
    line.peer.close();
    process.setChildProcessModifier([] {
        const rlimit limit = {300'000, 300'000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    });
    line.start();
    QTRY_VERIFY(process.isListening());

    BusFeeder feeder(process.place.path(u"me"_s));
    feeder.record("error", u"beyond the limit"_s, QByteArray(400'000, 'x'));
    line.oracle.put(feeder, 800);
    const auto failures = [&] {
        return process.place.logged(u"morvane.log"_s).filter(u"Can not "_s).size();
    };
    QTRY_COMPARE(failures() + process.spooled().size(), 801);
    QVERIFY(failures() > 50);
    const double before = process.processorSeconds();
    QTest::qWait(1'000);
    QVERIFY2(process.processorSeconds() - before < 0.2, "a full disk keeps a core busy");
    // Which of them found room is the disk's affair, but those are whole.
    const QByteArrayList kept = recordsIn(spool), all = line.oracle.all();
    for (const QByteArray &record : kept)
        QVERIFY(all.contains(record));
    QCOMPARE(keptCount(spool), kept.size());

    QVERIFY(line.peer.listen(QHostAddress::LocalHost, port));
    QTRY_COMPARE(line.peer.bodies, kept);
    QTRY_COMPARE(keptCount(spool), 0);
    feeder.record("error", u"fresh"_s, "1");
    QTRY_COMPARE(line.peer.bodies.last(), QByteArray("error1"));
    process.killNow();
}

void TestFaults::powerCutTakesLessThanASecond_data()
{
    QTest::addColumn<bool>("linkUp");
    QTest::addColumn<bool>("acknowledges");
    QTest::newRow("records wait as files") << false << false;
    QTest::newRow("records are on their way") << true << false;
    QTest::newRow("a program has read records, and not acknowledged them") << true << true;
}

void TestFaults::powerCutTakesLessThanASecond()
{
    QFETCH(const bool, linkUp);
    QFETCH(const bool, acknowledges);
    TcpLine line(300, acknowledges);
    line.peer.acknowledging = false;
    const QString spool = line.process.place.path(u"spool"_s);
    const SmallDisk disk(spool);
    if (!disk.make(u"200M"_s))
        QSKIP("only root may mount a file system, and not everywhere");
    const quint16 port = line.peer.serverPort();
    if (!acknowledges)
        line.peer.stopReading();
    if (!linkUp)
        line.peer.close();
    line.start();
    QTRY_VERIFY(line.process.isListening());

    BusFeeder feeder(line.process.place.path(u"me"_s));
    QList<int> accepted; // at each tenth of a second
    for (int slice = 0; slice < 25; ++slice, QTest::qWait(100)) {
        line.oracle.put(feeder, 150);
        feeder.flush();
        accepted.append(line.oracle.count());
    }
    if (!disk.cutPower())
        QSKIP("this kernel cannot shut down a file system");
    line.kill();
    QVERIFY(disk.remount());
    std::ignore = ageJournals(spool); // a cut in the first second may leave none
    if (acknowledges)
        line.peer.bodies.clear(); // the cut was the peer's, too

    if (!linkUp)
        QVERIFY(line.peer.listen(QHostAddress::LocalHost, port));
    line.start();
    const int sure = accepted.at(accepted.size() - 11); // a second before
    const auto missing = [&] { return line.oracle.missing(line.peer.bodies, sure); };
    QTRY_COMPARE(missing(), QList<int>());
    QVERIFY(line.oracle.areWhole(line.peer.bodies));
    line.process.killNow();
}

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
