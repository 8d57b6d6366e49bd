#include "BusEnds.h"
#include "Record.h"
#include "Tool.h"
#include "Workplace.h"

#include <unistd.h>

class TestMorvanectl : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void wrongUsageGivesStatusTwo_data();
    void wrongUsageGivesStatusTwo();
    void outputThatIsLostIsAFailure();
    void sendWaitsForTheModuleAndKeepsTheOrder();
    void sendSaysWhatKeepsItFromSending();
    void receiveWritesEveryRecordToAFileOfItsOwn();
    void receiveReportsSilenceAndClosesOrStopsOnRequest();
};

void TestMorvanectl::wrongUsageGivesStatusTwo_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QByteArray>("complaint");
    const auto row = [](const char *name, const QString &arguments, const char *complaint) {
        QTest::newRow(name) << arguments << QByteArray(complaint);
    };
    row("an option that does not exist", u"admin x --fro 1"_s,
        "\"--fro\"; did you mean \"--for\"?");
    row("nothing to send", u"send mod"_s, "MODULE FILE");
    row("a kind that modules drop", u"send mod /etc/passwd --kind Error"_s, "\"Error\"");
    row("a word that stands for nothing", u"send mod /etc/passwd --name {nmae}"_s,
        "\"{nmae}\" stands for nothing; did you mean \"{name}\"?");
    row("a name too long for a file", u"send mod /etc/passwd --name "_s + QString(256, u'n'),
        "256 bytes");
    row("a record name with a folder", u"send mod /etc/passwd --name a/b"_s, "\"a/b\"");
    row("a switch without its position", u"admin x watch maybe"_s, "\"watch maybe\"");
    row("names that leave the folder", u"receive 0 --dir in --name ../{number}"_s, "{number}");
    row("names without a number", u"receive 0 --dir in --name x"_s, "{number}");
    row("acknowledgements of what is not kept", u"receive 0 --acknowledge"_s, "--dir");
    row("a host name as address", u"receive 0 --address localhost"_s, "\"localhost\"");
}

void TestMorvanectl::wrongUsageGivesStatusTwo()
{
    QFETCH(QString, arguments);
    QFETCH(QByteArray, complaint);
    Tool tool(arguments);
    QVERIFY2(tool.endsComplaining(2, complaint), tool.complaints);
    QCOMPARE(tool.complaints.count('\n'), 1);
}

void TestMorvanectl::outputThatIsLostIsAFailure()
{
    const QString program = QCoreApplication::applicationDirPath() + u"/morvanectl"_s;
    for (const QString &arguments :
        {u"send --help"_s, u"receive 0"_s}) // with an event loop and without
        QCOMPARE(
            QProcess::execute(u"sh"_s,
                {u"-c"_s, u"exec \"$0\" "_s + arguments + u" >/dev/full 2>/dev/null"_s, program}),
            1);
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

    const QRegularExpression line(u"Sent (\\d{8}T\\d{6}Z)-000001-b "_s);
    const QString time = line.match(QString::fromUtf8(tool.said)).captured(1);
    const DataRecord first{"tempdb", time + u"-000001-b"_s, large};
    const DataRecord second{"tempdb", time + u"-000002-{number}"_s, ""};
    QTRY_VERIFY(module.received
        == BusFrame::makeName("morvanectl") + BusFrame::makeData(1, first.write())
            + BusFrame::makeData(1, second.write()));

    Tool piped(u"send mod - --name p"_s);
    piped.write(large); // many times what a pipe holds
    piped.closeWriteChannel();
    QTRY_COMPARE(piped.status(), 0);
    const DataRecord whole{"tempdb", u"p"_s, large};
    QTRY_VERIFY(module.received.endsWith(BusFrame::makeData(1, whole.write())));
}

void TestMorvanectl::sendSaysWhatKeepsItFromSending()
{
    const Workplace place;
    QVERIFY(QFile::resize(place.writeFile(u"fits"_s, {}), 40'000'000));
    QVERIFY(QFile::resize(place.writeFile(u"long"_s, {}), 50'000'000));
    Tool unheard(u"send mod fits"_s);
    QVERIFY2(unheard.endsComplaining(1, "no module listens"), unheard.complaints);

    BusServer module(u"mod"_s);
    if (::geteuid() != 0) { // root may connect to everything
        const QString socket = QDir::tempPath() + u"/mod"_s;
        QVERIFY(QFile::setPermissions(socket, {}));
        Tool denied(u"send mod fits --wait 20"_s);
        QVERIFY2(denied.endsComplaining(1, "permission denied"), denied.complaints);
        QVERIFY(QFile::setPermissions(socket, QFile::ReadUser | QFile::WriteUser));
    }
    module.reading = false;
    Tool tooLong(u"send mod long"_s);
    QVERIFY2(tooLong.endsComplaining(1, "50000000"), tooLong.complaints);
    Tool givenUp(u"send mod fits --timeout 1"_s);
    QVERIFY2(givenUp.endsComplaining(1, "has read nothing for 1 second;"), givenUp.complaints);
    Tool cutOff(u"send mod fits"_s);
    QTRY_COMPARE(module.sockets.size(), 3);
    module.dropConnections();
    QVERIFY2(cutOff.endsComplaining(1, "closed the connection; 0 of 1 record had left"),
        cutOff.complaints);
}

void TestMorvanectl::receiveWritesEveryRecordToAFileOfItsOwn()
{
    const Workplace place;
    const QDir folder(place.makeFolder(u"in"_s));
    place.writeFile(u"in/s.000009"_s, "old");
    place.writeFile(u"in/s7000011"_s, "another's");
    const QByteArray large = "error" + QByteArray(3'000'000, '\0');
    Tool tool(u"receive 0 --dir in --name s.{number} --count 4 --limit 3000005"_s);

    PeerLink brief(tool);
    brief.write(LinkRecord::make("tempdb_t1") + LinkRecord::make("live")
        + LinkRecord::make("tempdb") + LinkRecord::make("cut off").chopped(1));
    brief.disconnectFromHost();
    QTRY_VERIFY(tool.says("in the middle of a record"));
    PeerLink liar(tool);
    liar.write(LinkRecord::make(large + 'x') + LinkRecord::make("x"));
    QTRY_VERIFY(tool.complains("3000006 bytes, more than 3000005"));
    QTRY_COMPARE(liar.state(), QAbstractSocket::UnconnectedState);
    PeerLink honest(tool);
    honest.write(LinkRecord::make(large) + LinkRecord::make("x"));

    QVERIFY2(
        tool.endsSaying(0, "4 records of 3000021 bytes, 1 keep-alive, 3 connections\n"), tool.said);
    QByteArrayList files;
    for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden))
        files.append(name.toUtf8() + ' ' + place.readFile(u"in/"_s + name));
    QCOMPARE(files,
        QByteArrayList({"s.000009 old", "s.000010 tempdb_t1", "s.000011 tempdb",
            "s.000012 " + large, "s.000013 x", "s7000011 another's"}));

    Tool full(u"receive 0 --dir in"_s);
    PeerLink hopeful(full);
    QDir(place.path(u"in"_s)).removeRecursively();
    hopeful.write(LinkRecord::make("tempdb1") + LinkRecord::make("tempdb2"));
    QVERIFY2(full.endsSaying(1, " 0 keep-alives, 1 connection, 2 records of 14 bytes lost\n"),
        full.said);
}

void TestMorvanectl::receiveReportsSilenceAndClosesOrStopsOnRequest()
{
    const QByteArray records = LinkRecord::make("live") + LinkRecord::make("tempdb1")
        + LinkRecord::make("tempdb2") + LinkRecord::make("tempdb3");
    Tool closing(u"receive 0 --silence 1 --close-after 2"_s);
    PeerLink closed(closing);
    QTRY_VERIFY(closing.complains("has been silent for 1 second\n"));
    closing.complaints.clear();
    closed.write(LinkRecord::make("live"));
    QTRY_VERIFY(closing.says("Heard of again"));
    QTRY_VERIFY(closing.complains("has been silent"));
    closed.write(records);
    QTRY_COMPARE(closed.state(), QAbstractSocket::UnconnectedState);
    closing.raise(SIGTERM);
    QVERIFY2(closing.endsSaying(3,
                 "2 records of 14 bytes, 2 keep-alives, 1 connection, 1 record of 7 bytes "
                 "lost\n"),
        closing.said);

    Tool stopping(u"receive 0 --stop-after 1"_s);
    PeerLink stopped(stopping);
    stopped.write(records);
    QTRY_VERIFY(stopping.says("Reading no more after 1 record"));
    stopping.raise(SIGINT);
    QVERIFY2(stopping.endsSaying(3,
                 "1 record of 7 bytes, 1 keep-alive, 1 connection, 2 records of 14 bytes "
                 "lost\n"),
        stopping.said);
    QVERIFY(!stopping.says("Disconnected"));
}

QTEST_GUILESS_MAIN(TestMorvanectl)
#include "tst_morvanectl.moc"
