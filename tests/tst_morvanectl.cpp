#include "BusEnds.h"
#include "DataRecord.h"
#include "LinkRecord.h"
#include "Tool.h"
#include "Workplace.h"

#include <list>
#include <unistd.h>

using LinkRecord::make;

class TestMorvanectl : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void wrongUsageGivesStatusTwo();
    void helpIsShownAndLostOutputIsAFailure();
    void sendWaitsForTheModuleAndKeepsTheOrder();
    void sendSaysWhatKeepsItFromSending();
    void receiveWritesEveryRecordToAFileOfItsOwn();
    void receiveReportsSilenceAndClosesOrStopsOnRequest();
};

void TestMorvanectl::wrongUsageGivesStatusTwo()
{
    const std::pair<QString, const char *> wrongUses[] = {
        {u"chek m.ini"_s, "\"chek\"; did you mean \"check\"? See"},
        {u"admin x --fro 1"_s, "\"--fro\"; did you mean \"--for\"?"},
        {u"admin x stop"_s, "\"stop\" is not a command"},
        {u"admin x watch maybe"_s, "\"watch maybe\""},
        {u"send mod"_s, "MODULE FILE"},
        {u"send mod -"_s, "--name"},
        {u"send mod /etc/passwd --kind Error"_s, "\"Error\""}, // modules would drop it
        {u"send mod x --name {nmae}"_s, "\"{nmae}\" stands for nothing; did you mean \"{name}\"?"},
        {u"send mod x --name "_s + QString(256, u'n'), "256 bytes"},
        {u"send mod x --name a/b"_s, "\"a/b\""},
        {u"send mod /etc/passwd /tmp/../etc/passwd"_s, "\"passwd\""},
        {u"receive 0 --dir in --name ../{number}"_s, "{number}"},
        {u"receive 0 --dir in --name x"_s, "{number}"},
        {u"receive 0 --acknowledge"_s, "--dir"},
        {u"receive 0 --address localhost"_s, "\"localhost\""},
    };
    for (const auto &[arguments, complaint] : wrongUses) {
        Tool tool(arguments);
        QVERIFY2(tool.endsComplaining(2, complaint), complaint);
        QCOMPARE(tool.complaints.count('\n'), 1);
    }
}

void TestMorvanectl::helpIsShownAndLostOutputIsAFailure()
{
    QVERIFY(Tool(u"--help"_s).endsSaying(0, "Usage: morvanectl SUB"));
    QVERIFY(Tool(u"help spool"_s).endsSaying(0, "Usage: morvanectl spool "));
    const QString script = u"exec \"$0/morvanectl\" %1 >/dev/full 2>/dev/null"_s;
    const QString folder = QCoreApplication::applicationDirPath();
    for (const QString &arguments : {u"send --help"_s, u"receive 0"_s}) // one has an event loop
        QCOMPARE(QProcess::execute(u"sh"_s, {u"-c"_s, script.arg(arguments), folder}), 1);
}

void TestMorvanectl::sendWaitsForTheModuleAndKeepsTheOrder()
{
    const Workplace place;
    const QByteArray large(6'000'000, 'b'); // more than is read ahead
    place.writeFile(u"b"_s, large);
    place.writeFile(u"{number}"_s, "");
    Tool tool(u"send mod b {number} --wait 20 --name {time}-{number}-{name}"_s);
    QTRY_VERIFY(tool.says("Waiting for mod"));
    const BusServer module(u"mod"_s);
    QTRY_COMPARE(tool.status(), 0);
    QVERIFY(tool.says("2 records sent to mod"));

    const auto record = [](const QString &name, const QByteArray &payload) {
        return BusFrame::makeData(1, DataRecord{"tempdb", name, payload}.write());
    };
    const QRegularExpression line(u"Sent (\\d{8}T\\d{6}Z)-000001-b "_s);
    const QString time = line.match(QString::fromUtf8(tool.said)).captured(1);
    QTRY_VERIFY(module.received
        == BusFrame::makeName("morvanectl") + record(time + u"-000001-b"_s, large)
            + record(time + u"-000002-{number}"_s, ""));

    Tool piped(u"send mod - --name p"_s);
    piped.write(large); // many times what a pipe holds
    piped.closeWriteChannel();
    QTRY_COMPARE(piped.status(), 0);
    QTRY_VERIFY(module.received.endsWith(record(u"p"_s, large)));
}

void TestMorvanectl::sendSaysWhatKeepsItFromSending()
{
    const Workplace place;
    QVERIFY(QFile::resize(place.writeFile(u"fits"_s, {}), 40'000'000));
    QVERIFY(QFile::resize(place.writeFile(u"long"_s, {}), 50'000'000));
    QVERIFY(Tool(u"send mod fits"_s).endsComplaining(1, "no module listens"));

    BusServer module(u"mod"_s);
    if (::geteuid() != 0) { // root may connect to everything
        QFile socket(place.path(u"mod"_s));
        QVERIFY(socket.setPermissions({}));
        QVERIFY(Tool(u"send mod fits --wait 20"_s).endsComplaining(1, "permission denied"));
        QVERIFY(socket.setPermissions(QFile::ReadUser | QFile::WriteUser));
    }
    module.reading = false;
    QVERIFY(Tool(u"send mod long"_s).endsComplaining(1, "50000000"));
    // One file that cannot be read keeps all from being sent.
    QVERIFY(Tool(u"send mod fits none"_s).endsComplaining(1, "none cannot be read: No such file"));
    QVERIFY(Tool(u"send mod fits --timeout 1"_s).endsComplaining(1, "read nothing for 1 second;"));
    Tool cutOff(u"send mod fits"_s);
    QTRY_COMPARE(module.sockets.size(), 3);
    module.dropConnections();
    QVERIFY(cutOff.endsComplaining(1, "closed the connection; 0 of 1 record had been sent"));
}

void TestMorvanectl::receiveWritesEveryRecordToAFileOfItsOwn()
{
    const Workplace place;
    const QDir folder(place.makeFolder(u"in"_s));
    place.writeFile(u"in/s.000009"_s, "old");
    place.writeFile(u"in/s7000011"_s, "another's");
    const QByteArray large = "error" + QByteArray(3'000'000, '\0');
    Receiver tool(u"receive 0 --dir in --name s.{number} --count 4 --limit 3000005"_s);
    tool.sender.write(make("tempdb_t1") + make("live") + make("tempdb") + make("cut").chopped(1));
    tool.sender.disconnectFromHost();
    QTRY_VERIFY(tool.says("in the middle of a record"));
    PeerLink liar(tool);
    liar.write(make(large + 'x') + make("x"));
    QTRY_VERIFY(tool.complains("3000006 bytes, more than the limit of 3000005"));
    QTRY_COMPARE(liar.state(), QAbstractSocket::UnconnectedState);
    PeerLink honest(tool);
    honest.write(make(large) + make("x"));
    QVERIFY(tool.endsSaying(0, "4 records of 3000021 bytes, 1 keep-alive, 3 connections\n"));
    QByteArrayList files;
    for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden))
        files.append(name.toUtf8() + ' ' + place.readFile(u"in/"_s + name));
    QCOMPARE(files,
        QByteArrayList({"s.000009 old", "s.000010 tempdb_t1", "s.000011 tempdb",
            "s.000012 " + large, "s.000013 x", "s7000011 another's"}));

    Receiver again(u"receive 0 --dir in --name s.{number} --overwrite"_s);
    again.sender.write(make("again").repeated(9));
    QTRY_COMPARE(place.readFile(u"in/s.000009"_s), "again");
    QDir(place.path(u"in"_s)).removeRecursively();
    again.sender.write(make("tempdb1") + make("tempdb2"));
    QVERIFY(again.endsSaying(1, " 0 keep-alives, 1 connection, 2 records of 14 bytes lost\n"));
}

void TestMorvanectl::receiveReportsSilenceAndClosesOrStopsOnRequest()
{
    const QByteArray records = make("live") + make("tempdb1") + make("tempdb2") + make("tempdb3");
    Receiver closing(u"receive 0 --silence 1 --close-after 2"_s);
    QTRY_VERIFY(closing.complains("has been silent for 1 second\n"));
    closing.complaints.clear();
    closing.sender.write(make("live"));
    QTRY_VERIFY(closing.says("Heard from again"));
    QTRY_VERIFY(closing.complains("has been silent"));
    closing.sender.write(records);
    QTRY_COMPARE(closing.sender.state(), QAbstractSocket::UnconnectedState);
    closing.raise(SIGTERM);
    QVERIFY(closing.endsSaying(
        3, "2 records of 14 bytes, 2 keep-alives, 1 connection, 1 record of 7 bytes lost\n"));

    Receiver stopping(u"receive 0 --stop-after 1"_s);
    stopping.sender.write(records);
    std::list<PeerLink> crowd;
    while (crowd.size() < 16)
        crowd.emplace_back(stopping);
    QTRY_VERIFY(stopping.says("Refused") && stopping.says("16 connections are open"));
    QTRY_VERIFY(stopping.says("Stopped reading after 1 record"));
    stopping.raise(SIGINT);
    QVERIFY(stopping.endsSaying(
        3, "1 record of 7 bytes, 1 keep-alive, 16 connections, 2 records of 14 bytes lost\n"));
    QVERIFY(!stopping.says("Disconnected"));
}

QTEST_GUILESS_MAIN(TestMorvanectl)
#include "tst_morvanectl.moc"
