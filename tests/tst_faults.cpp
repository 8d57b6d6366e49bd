#include "BusEnds.h"
#include "KeptRecords.h"
#include "ModuleProcess.h"
#include "Oracle.h"
#include "SmallDisk.h"
#include "UdpRelay.h"

#include <QRandomGenerator>

namespace {

constexpr int backlog = 1'000; // records that wait when a process starts
constexpr int recordBytes = 2'000; // of payload
constexpr int udpRecordBytes = 20'000; // a tenth of a second at a packet for each millisecond
constexpr int peerBuffer = 65'536; // bytes; what a peer that dies may have taken without reading
constexpr int windowRecords = 4 * peerBuffer / recordBytes; // the kernel may double it, and rounds
constexpr int unsentRecords = 131'072 / recordBytes + 1; // that the kernel sends after a kill
constexpr int unseenRecords = backlog / 2; // acknowledged since the last look: some milliseconds

// MORVANE_KILLS=100 build/dev/bin/tst_faults kills that often in every row, not just a few times.
const int kills = std::max(qEnvironmentVariableIntValue("MORVANE_KILLS"), 6);

// Of records of the bus that a peer reads at once, for one kill: what 25 milliseconds can hold.
constexpr int killDuplicates = 2'500;

// What the peer of a row does, as bits.
constexpr int reads = 0, stopsReading = 1, resets = 2, acknowledges = 4, isAway = 8;

// A process in TCP mode, its peer, and the oracle that knows what goes from one to the other.
struct TcpLine
{
    explicit TcpLine(int peerDoes = reads, qsizetype payloadBytes = recordBytes)
        : oracle(payloadBytes)
    {
        peer.setKernelBuffer(peerBuffer);
        peer.acknowledging = peerDoes & acknowledges;
        process.writeSettings(u"m.ini"_s, "AdminServerName=\n",
            "Port=" + QByteArray::number(port)
                + (peer.acknowledging ? "\nAcknowledgements=1\n" : "\n"));
    }
    void start() { process.startWith({u"-settings"_s, u"m.ini"_s}); }

    // Kills the process. The peer reads what its kernel has taken.
    void kill()
    {
        process.killNow();
        QCoreApplication::processEvents(); // it may not know of the connection yet
        peer.setReading(true);
        QTRY_VERIFY(!peer.socket || peer.socket->state() == QAbstractSocket::UnconnectedState);
    }

    [[nodiscard]] qsizetype keptCount() const { return keptRecords(spool).size(); }

    // Without further faults everything arrives, a fresh record at last, and nothing stays behind.
    void settle(int mostMissing, int mostDuplicates)
    {
        oracle.put(process, 1);
        start();
        QTRY_VERIFY(oracle.hasLast(peer.bodies));
        QTRY_COMPARE(keptCount(), 0); // not before: records that are being moved may not be seen
        QCOMPARE(oracle.judge(peer, mostDuplicates, mostMissing), QString());
        kill();
        oracle.settle();
        peer.bodies.clear();
        peer.linkStarts.clear();
    }

    TcpPeer peer;
    ModuleProcess process;
    Oracle oracle;
    const quint16 port = peer.serverPort(); // also while it does not listen
    const QString spool = process.place.path(u"spool"_s);
};

// One of two processes in UDP mode that send to each other.
struct UdpEnd
{
    void start(quint16 peerPort)
    {
        const QString main = u"Protocol=UDP\nTimeout=1\nLocalPort=%1\nPort=%2\n"_s;
        process.writeSettings(
            u"m.ini"_s, "AdminServerName=\n", main.arg(port).arg(peerPort).toLatin1());
        process.startWith({u"-settings"_s, u"m.ini"_s});
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
    void stopTakesWhatTheBusHolds();
    void killsLoseNothingOverUdp();
    void fullDiskHealsByItself();
    void powerCutTakesLessThanASecond_data();
    void powerCutTakesLessThanASecond();

private:
    void pause(int most) { QTest::qWait(int(random.bounded(most))); }

    QRandomGenerator random{7};
};

void TestFaults::killsLoseNothingOverTcp_data()
{
    QTest::addColumn<int>("peer");
    QTest::newRow("a peer that reads") << reads;
    QTest::newRow("a peer that stops reading") << stopsReading;
    QTest::newRow("a peer that resets") << resets;
    QTest::newRow("a peer that dies with unread data") << (stopsReading | resets);
    QTest::newRow("a program that acknowledges and reads") << acknowledges;
    QTest::newRow("a program that acknowledges and dies") << (acknowledges | stopsReading | resets);
}

void TestFaults::killsLoseNothingOverTcp()
{
    QFETCH(const int, peer);
    TcpLine line(peer);
    int resetLinks = 0, ends = 0; // of links, since all was settled
    for (int kill = 1; kill <= kills; ++kill) {
        line.oracle.put(line.process, std::max(backlog - int(line.keptCount()), 1));
        line.start();
        if (kill % 2 == 0)
            QTRY_VERIFY(line.peer.bodies.size() > 0);
        pause(50);
        if (peer & stopsReading)
            line.peer.setReading(false);
        pause(50);
        if (peer & resets && line.peer.socket && line.peer.socket->isValid()) {
            line.peer.reset();
            resetLinks += peer & acknowledges ? 0 : 1; // nothing is lost
            ++ends;
        }
        pause(kill % 5 == 0 ? 1'500 : 100);
        line.kill();
        ++ends;
        if (kill % 10 == 0 || kill == kills) {
            // What a kernel holds for a slow peer arrives after the kill, and again later.
            const int most = peer & stopsReading ? windowRecords + unsentRecords : unseenRecords;
            const int mostTwice = std::exchange(ends, 0) * most;
            line.settle(std::exchange(resetLinks, 0) * windowRecords, mostTwice);
        }
        if (QTest::currentTestFailed())
            return;
    }
}

void TestFaults::killsLoseNothingOfTheBus()
{
    for (int round = 0; round < kills; round += 6) {
        // Side by side: a bus takes five seconds to start.
        TcpLine lines[] = {TcpLine(), TcpLine(), TcpLine(acknowledges), TcpLine(acknowledges)};
        for (TcpLine &line : lines)
            line.start();
        for (TcpLine &line : lines) {
            QTRY_VERIFY(line.process.isListening());
            BusClient feeder(line.process.place.path(u"me"_s));
            line.oracle.put(feeder, 20'000);
            pause(300);
            if (line.peer.acknowledging) { // and dies first, as if killed with unread bytes
                line.peer.setReading(false);
                line.peer.socket->waitForReadyRead(20);
                line.peer.reset();
                line.peer.setReading(true);
                QTRY_COMPARE(line.peer.linkStarts.size(), 2);
                line.oracle.put(feeder, 1'000);
                pause(300);
            }
            line.kill();
            // What it had written, and what the peer had got, was accepted.
            QByteArrayList bodies = line.peer.bodies + recordsIn(line.spool);
            std::sort(bodies.begin(), bodies.end());
            line.oracle.acceptedUpTo(bodies.isEmpty() ? -1 : Oracle::numberIn(bodies.last()));
            line.settle(0, line.peer.acknowledging ? INT_MAX : killDuplicates);
            if (QTest::currentTestFailed())
                return;
        }
    }
}

void TestFaults::stopTakesWhatTheBusHolds()
{
    for (const auto &[peer, who] : {std::pair(reads, "the peer's kernel acknowledges"),
             std::pair(acknowledges, "the peer's program acknowledges, late")}) {
        TcpLine line(peer);
        line.peer.acknowledging = false;
        line.start();
        const QString bus = line.process.place.path(u"me"_s);
        BusClient early(bus);
        line.process.raise(SIGSTOP);
        BusClient late(bus), later(bus), last(bus); // the module has not taken them yet
        for (BusClient *feeder : {&early, &late, &later, &last}) {
            line.oracle.put(*feeder, 20);
            QVERIFY2(feeder->flush() && feeder->bytesToWrite() == 0, who);
        }
        line.process.raise(SIGTERM);
        line.process.raise(SIGCONT);
        if (peer == acknowledges) {
            QTRY_VERIFY2(line.peer.bodies.size() == 80, who);
            QTest::qWait(100);
            line.peer.acknowledge(80);
        }
        QTRY_VERIFY2(line.process.status() == 0, who);
        line.kill();
        QVERIFY2(line.oracle.missing(line.peer.bodies, line.oracle.count()).isEmpty(), who);
        QVERIFY2(line.keptCount() == 0, who);
    }
}

void TestFaults::killsLoseNothingOverUdp()
{
    std::array<UdpEnd, 2> ends;
    const auto start = [&](int index) { ends[index].start(ends[1 - index].port); };
    start(0);
    start(1);
    for (int kill = 0; kill < kills; ++kill) {
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

void TestFaults::fullDiskHealsByItself()
{
    TcpLine line;
    ModuleProcess &process = line.process;
    const SmallDisk disk(line.spool);
    if (!disk.make(u"2M"_s, u"-m 0 -N 2000"_s)
        && !shell(u"mount -t tmpfs -o size=1m none "_s + line.spool))
        QSKIP("only root may mount a small file system, and not everywhere");
    line.peer.close();
    process.setChildProcessModifier([] { FileLimit::set(300'000); });
    line.start();
    BusClient feeder(process.place.path(u"me"_s));
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
    const QByteArrayList kept = recordsIn(line.spool);
    QVERIFY(line.oracle.areWhole(kept));
    QCOMPARE(line.keptCount(), kept.size());

    QVERIFY(line.peer.listen(QHostAddress::LocalHost, line.port));
    QTRY_COMPARE(line.peer.bodies, kept);
    QTRY_COMPARE(line.keptCount(), 0);
    feeder.record("error", u"fresh"_s, "1");
    QTRY_COMPARE(line.peer.bodies.last(), QByteArray("error1"));
}

void TestFaults::powerCutTakesLessThanASecond_data()
{
    QTest::addColumn<int>("peer");
    QTest::newRow("records wait as files") << (stopsReading | isAway);
    QTest::newRow("records are on their way") << stopsReading;
    QTest::newRow("a program has read records, and not acknowledged them") << acknowledges;
}

void TestFaults::powerCutTakesLessThanASecond()
{
    QFETCH(const int, peer);
    TcpLine line(peer, 300);
    line.peer.acknowledging = false;
    const SmallDisk disk(line.spool);
    if (!disk.make(u"200M"_s))
        QSKIP("only root may mount a file system, and not everywhere");
    if (peer & stopsReading)
        line.peer.setReading(false);
    if (peer & isAway)
        line.peer.close();
    line.start();
    BusClient feeder(line.process.place.path(u"me"_s));
    for (int tenth = 0; tenth < 25; ++tenth, QTest::qWait(100)) { // of a second
        line.oracle.put(feeder, 150);
        feeder.flush();
    }
    if (!disk.cutPower())
        QSKIP("this kernel cannot shut down a file system");
    line.kill();
    QVERIFY(disk.remount());
    std::ignore = ageJournals(line.spool); // a cut in the first second may leave none
    if (peer & acknowledges)
        line.peer.bodies.clear(); // the cut was the peer's, too

    QVERIFY(line.peer.isListening() || line.peer.listen(QHostAddress::LocalHost, line.port));
    line.start();
    // What came a second before the cut; half a second more is for a busy machine.
    QTRY_VERIFY(line.oracle.missing(line.peer.bodies, 10 * 150).isEmpty());
    QVERIFY(line.oracle.areWhole(line.peer.bodies));
}

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
