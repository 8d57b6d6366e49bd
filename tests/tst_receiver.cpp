#include "BusEnds.h"
#include "KeptRecords.h"
#include "LinkRecord.h"
#include "ModuleProcess.h"
#include "Oracle.h"
#include "SmallDisk.h"
#include "Tool.h"

#include <QCryptographicHash>

#include <set>

using LinkRecord::make;

namespace {

// A line of the index.
QByteArray entry(const QByteArray &number, const QByteArray &link, const QByteArray &body)
{
    const QByteArray digest = QCryptographicHash::hash(body, QCryptographicHash::Blake2b_256);
    const QByteArray size = QByteArray::number(body.size());
    return QByteArrayList({number, link, size, digest.toHex(), number}).join(' ') + '\n';
}

// The files are whole, and the index tells of each. No link may have brought a record twice.
void compareIndex(const Folder &place, const Oracle &oracle)
{
    const QByteArrayList kept = recordsIn(place.path(u"in"_s));
    QVERIFY(oracle.areWhole(kept));
    std::set<QByteArray> overOneLink;
    const QByteArrayList lines = place.readFile(u"in/.index"_s).trimmed().split('\n').mid(1);
    for (const QByteArray &line : lines) {
        const QByteArrayList fields = line.split(' ');
        const QByteArray number = fields.value(0), link = fields.value(1), digest = fields.value(3);
        const QByteArray body = place.readFile(u"in/"_s + QString::fromUtf8(number));
        QCOMPARE(line + '\n', entry(number, link, body));
        QVERIFY2(overOneLink.insert(link + digest).second || link == "0", line);
    }
    QCOMPARE(lines.size(), kept.size());
}

} // namespace

// The receiver that acknowledges, and senders that the tests play.
class TestReceiver : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void acknowledgesWhatItKeepsAndNoMore();
    void indexIsMendedContinuedAndKept();
    void diskFailsAndFills();
    void nothingIsLostBetweenBusAndDisk();
};

void TestReceiver::acknowledgesWhatItKeepsAndNoMore()
{
    const Workplace place;
    // Options, and how many records and keep-alives are acknowledged.
    const QList<std::pair<QString, quint64>> rows = {{u"--dir 1"_s, 6}, {u"--dir 2 --count 2"_s, 3},
        {u"--dir 3 --close-after 2"_s, 3}, {u"--dir 4 --stop-after 2"_s, 3},
        {u"--dir 5 --limit 5"_s, 2}};
    for (const auto &[options, kept] : rows) {
        Receiver tool(u"receive 0 --acknowledge "_s + options);
        tool.sender.write(make("error") + make("live") + make("longer") + make("") + make("live")
            + make("error") + make("incomplete").chopped(1));
        const QByteArray last = LinkRecord::acknowledgement(kept);
        QTRY_VERIFY2(tool.sender.peek(99).endsWith(last), qPrintable(options));
        if (!options.contains(u"--count"_s))
            tool.raise(SIGTERM);
        QTRY_VERIFY2(tool.status() == 0, qPrintable(options)); // nothing is lost
        QTRY_VERIFY2(tool.sender.state() == QTcpSocket::UnconnectedState, qPrintable(options));
        QVERIFY2(tool.sender.peek(99).endsWith(last), qPrintable(options));
    }
}

// A kill or a power cut has left files without a line, half a line, and files without a name. What
// was fetched from the folder keeps its number.
void TestReceiver::indexIsMendedContinuedAndKept()
{
    const Workplace place;
    const QByteArray before = "# after 3: number, link, bytes, BLAKE2b-256, file\n"
        + entry("000004", "3", "4") + entry("000005", "0", "5");
    place.writeFile(place.makeFolder(u"in"_s) + u"/.index"_s,
        before + entry("000006", "3", "6").chopped(9) + "\n000007 3");
    place.writeFile(u"in/.batch-0"_s, "7");
    place.writeFile(u"in/000006"_s, "error6");
    Receiver tool(u"receive 0 --dir in --acknowledge"_s);
    tool.sender.write(make("error7") + make("error8") + make("error9").chopped(1));
    QTRY_VERIFY(tool.sender.peek(99).endsWith(LinkRecord::acknowledgement(2)));
    tool.sender.abort();
    place.writeFile(u"in/000009"_s, "another's");
    for (int link = 5; link <= 20; ++link) { // more than may be open at once
        PeerLink next(tool);
        next.write(make(link < 20 ? "live" : "error9"));
        QTRY_COMPARE(next.peek(99), LinkRecord::acknowledgement(1));
    }
    QCOMPARE(place.readFile(u"in/.index"_s),
        before + entry("000006", "0", "error6") + entry("000007", "4", "error7")
            + entry("000008", "4", "error8") + entry("000010", "20", "error9"));
    QCOMPARE(QDir(place.path(u"in"_s)).entryList(QDir::Files | QDir::Hidden, QDir::Name),
        u".index 000006 000007 000008 000009 000010"_s.split(u' '));
    QVERIFY(Tool(u"receive 0 --dir in --acknowledge"_s).endsComplaining(1, "another receiver ack"));
    // A full index stays, and a new one begins.
    place.writeFile(place.makeFolder(u"full"_s) + u"/.index"_s,
        QByteArray(67'108'800, '#') + "\n" + entry("000005", "3", "5"));
    Receiver full(u"receive 0 --dir full --acknowledge"_s);
    full.sender.write(make("error6"));
    QTRY_VERIFY(place.readFile(u"full/.index.1"_s).endsWith(entry("000006", "4", "error6")));
    QTRY_VERIFY(place.readFile(u"full/.index"_s).startsWith("# after 6: "));
    full.raise(SIGSTOP); // it sees the record and the end of the link together
    full.sender.write(make("error7"));
    full.sender.disconnectFromHost();
    QTRY_COMPARE(full.sender.bytesToWrite(), 0);
    full.raise(SIGCONT);
    QTRY_COMPARE(place.readFile(u"full/000007"_s), "error7");
}

// In turn: the power is cut, a file is too large, and empty files have room, but not their names.
void TestReceiver::diskFailsAndFills()
{
    const Workplace place;
    const SmallDisk disk(place.makeFolder(u"in"_s));
    if (!disk.make(u"8M"_s))
        QSKIP("no file system can be mounted here");
    std::optional<Receiver> cut(u"receive 0 --dir in --acknowledge"_s);
    cut->sender.write(make("error1"));
    QTRY_VERIFY(cut->sender.bytesAvailable() > 0);
    const bool isCut = disk.cutPower();
    cut.reset();
    QVERIFY(disk.remount());
    QCOMPARE(recordsIn(place.path(u"in"_s)), QByteArrayList({"error1"}));

    Receiver large(u"receive 0 --dir in"_s);
    Receiver full(u"receive 0 --dir in --acknowledge --name {number}"_s + QString(200, u'n'));
    large.sender.write(make(QByteArray(10'000'000, 'x')));
    QVERIFY(large.endsComplaining(1, "10000000 bytes in in: No space left on device\n"));
    shell(
        u"cd $TMPDIR/in; sync -f .; cat /dev/zero >.fill; sync -f .; cd lost*; mkdir $(seq 999)"_s);
    full.sender.write(make("").repeated(20));
    QVERIFY(full.endsComplaining(1, " in in: No space left on device\n"));
    QCOMPARE(full.sender.bytesAvailable(), 0);
    if (!isCut)
        QSKIP("this kernel cannot shut down a file system");
}

// In turn the receiver and twice its disk fail, at various moments.
void TestReceiver::nothingIsLostBetweenBusAndDisk()
{
    const Workplace place;
    const SmallDisk disk(place.makeFolder(u"in"_s));
    const int faults = disk.make(u"100M"_s) ? 3 : 1;
    std::optional<Tool> tool(u"receive 0 --dir in --acknowledge"_s);
    const quint16 port = tool->port();
    ModuleProcess module;
    const QByteArray main = "Acknowledgements=1\nPort=" + QByteArray::number(port) + '\n';
    module.startWith(
        {u"-settings"_s, module.writeSettings(u"m.ini"_s, "AdminServerName=\n", main)});
    BusClient feeder(module.place.path(u"me"_s));
    Oracle oracle(300);
    for (int round = 0; round < 9; ++round) {
        QTRY_VERIFY(tool->says("Connected"));
        oracle.put(feeder, 200);
        QTest::qWait(round * 23 % 60);
        const int fault = round % faults;
        if (fault == 1 ? !disk.cutPower()
                       : fault == 2 && shell(u"cat /dev/zero >$TMPDIR/in/.big"_s))
            QSKIP("this kernel cannot shut down a file system");
        oracle.put(feeder, 200);
        QVERIFY2(!fault || tool->endsComplaining(1, fault < 2 ? "" : "cannot"), tool->complaints);
        tool.reset();
        QVERIFY(!fault || (disk.remount() && shell(u"rm -f $TMPDIR/in/.big"_s)));
        tool.emplace(u"receive %1 --dir in --acknowledge"_s.arg(port));
    }
    // The spool is empty now and then before all has arrived.
    QTRY_VERIFY(oracle.missing(recordsIn(place.path(u"in"_s)), oracle.count()).isEmpty());
    QTRY_COMPARE(keptRecords(module.place.path(u"spool"_s)).size(), 0);
    QVERIFY(module.place.logged(u"morvane.log"_s).filter(u"the link is ended"_s).isEmpty());
    compareIndex(place, oracle);
}

QTEST_GUILESS_MAIN(TestReceiver)
#include "tst_receiver.moc"
