#include "BusEnds.h"
#include "Record.h"
#include "Tool.h"
#include "Workplace.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

// A module's connection to the administration server: takes commands and answers.
class AdminLink : public QLocalSocket
{
public:
    explicit AdminLink(const QByteArray &moduleName)
    {
        connect(this, &QIODevice::readyRead, this, [this] { received += readAll(); });
        connectToServer(u"admin"_s);
        write(BusFrame::makeName(moduleName));
    }
    QByteArray received;
};

QByteArray command(const char *name, int id)
{
    return BusFrame::makeCommand(name, "", id);
}

QByteArray dataFrame(const char *kind, const QString &name, const QByteArray &payload)
{
    return BusFrame::makeData(1, DataRecord{kind, name, payload}.write());
}

quint16 portOf(Tool &tool)
{
    if (!QTest::qWaitFor([&] { return tool.says("\n"); }, patience))
        return 0;
    const QRegularExpression line(u"Listening on 127.0.0.1 port (\\d+)"_s);
    return line.match(QString::fromUtf8(tool.said)).captured(1).toUShort();
}

} // namespace

class TestMorvanectl : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void wrongUsageGivesStatusTwo_data();
    void wrongUsageGivesStatusTwo();
    void sendWaitsForTheModuleAndKeepsTheOrder();
    void sendNamesRecordsByATemplate();
    void sendSaysWhatKeepsItFromSending();
    void receiveWritesEveryRecordToAFileOfItsOwn();
    void receiveDropsAnOversizedRecord();
    void receiveReportsASilentLink();
    void receiveClosesOrStopsReadingOnRequest();
    void adminShowsModulesAndSendsTypedCommands();
    void adminWaitsForWhatItsCommandsDo();
    void adminTakesItsOwnWordsForAllOrForOneModule();
    void adminPrintsOneObjectALine();
    void adminTakesNoNameAway();
};

void TestMorvanectl::wrongUsageGivesStatusTwo_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("complaint");
    const auto row = [](const char *name, const QString &arguments, const char *complaint) {
        QTest::newRow(name) << arguments.split(u' ', Qt::SkipEmptyParts) << QByteArray(complaint);
    };
    row("no subcommand", u""_s, "subcommand is missing");
    row("an option that does not exist", u"admin x --fly"_s, "'fly'");
    row("a bus name that no socket can have", u"admin "_s + QString(107, u'n'), "106");
    row("nothing to send", u"send mod"_s, "MODULE FILE");
    row("a kind that modules drop", u"send mod /etc/passwd --kind Error"_s, "\"Error\"");
    row("a record name with a folder", u"send mod /etc/passwd --name a/b"_s, "\"a/b\"");
    row("a switch without its position", u"admin x watch maybe"_s, "\"watch maybe\"");
    row("a host name as address", u"receive 0 --address localhost"_s, "\"localhost\"");
}

void TestMorvanectl::wrongUsageGivesStatusTwo()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, complaint);
    Tool tool(arguments);
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 2, patience);
    QVERIFY2(tool.complains(complaint), tool.complaints);
    QCOMPARE(tool.complaints.count('\n'), 1);
    QVERIFY(!tool.says("\n"));
}

void TestMorvanectl::sendWaitsForTheModuleAndKeepsTheOrder()
{
    const Workplace place;
    const QString b =
        place.writeFile(u"b"_s, QByteArray(6'000'000, 'b')); // more than is read ahead
    const QString a = place.writeFile(u"a"_s, {});
    Tool tool({u"send"_s, u"mod"_s, b, a, u"--wait"_s, u"20"_s});
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("Waiting for mod"), patience);
    const BusServer module(u"mod"_s);
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    const QByteArray expected = BusFrame::makeName("morvanectl")
        + dataFrame("tempdb", u"b"_s, QByteArray(6'000'000, 'b')) + dataFrame("tempdb", u"a"_s, "");
    QTRY_VERIFY(module.received == expected);
    QVERIFY(tool.says("2 records sent to mod"));
}

void TestMorvanectl::sendNamesRecordsByATemplate()
{
    const Workplace place;
    const BusServer module(u"mod"_s);
    const QDateTime start = QDateTime::currentDateTimeUtc().addSecs(-1);
    Tool tool({u"send"_s, u"mod"_s, place.writeFile(u"{number}"_s, "1"),
        place.writeFile(u"b"_s, "2"), u"--name"_s, u"{time}-{number}-{name}"_s});
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    const QRegularExpression form(u"Sent (\\d+T\\d+Z)-000001-\\{number\\} .*\n"
                                  "Sent \\1-000002-b "_s);
    QVERIFY(tool.says("2 records sent"));
    const QRegularExpressionMatch match = form.match(QString::fromUtf8(tool.said));
    QVERIFY2(match.hasMatch(), tool.said);
    QDateTime time = QDateTime::fromString(match.captured(1), u"yyyyMMdd'T'HHmmss'Z'"_s);
    time.setTimeSpec(Qt::UTC);
    QVERIFY(time >= start && time <= QDateTime::currentDateTimeUtc());
    QVERIFY(!tool.said.contains('\r'));
}

void TestMorvanectl::sendSaysWhatKeepsItFromSending()
{
    const Workplace place;
    Tool unheard({u"send"_s, u"mod"_s, place.writeFile(u"a"_s, "a")});
    QTRY_COMPARE_WITH_TIMEOUT(unheard.status(), 1, patience);
    QVERIFY2(unheard.complains("no module listens"), unheard.complaints);

    BusServer module(u"mod"_s);
    module.reading = false;
    QVERIFY(QFile::resize(place.writeFile(u"long"_s, {}), 50'000'000));
    Tool tooLong({u"send"_s, u"mod"_s, place.path(u"long"_s)});
    QTRY_COMPARE_WITH_TIMEOUT(tooLong.status(), 1, patience);
    QVERIFY2(tooLong.complains("50000000"), tooLong.complaints);
    const QString file = place.writeFile(u"b"_s, {});
    QVERIFY(QFile::resize(file, 40'000'000));
    Tool tool({u"send"_s, u"mod"_s, file});
    QTRY_COMPARE_WITH_TIMEOUT(module.sockets.size(), 2, patience);
    module.dropConnections();
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 1, patience);
    QVERIFY2(tool.complains("closed the connection; 0 of 1 record had left"), tool.complaints);
}

void TestMorvanectl::receiveWritesEveryRecordToAFileOfItsOwn()
{
    const Workplace place;
    const QString in = place.makeFolder(u"in"_s);
    place.writeFile(u"in/000009"_s, "old");
    Tool tool({u"receive"_s, u"0"_s, u"--dir"_s, in, u"--count"_s, u"3"_s});
    const quint16 port = portOf(tool);

    QTcpSocket first;
    first.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(first.waitForConnected());
    for (const char byte : LinkRecord::make("tempdb_t1") + LinkRecord::make("live")) {
        first.write(&byte, 1);
        first.flush();
    }
    first.write(LinkRecord::make("tempdb") + LinkRecord::make("cut off").chopped(1));
    first.disconnectFromHost();
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("in the middle of a record"), patience);

    QTcpSocket second;
    second.connectToHost(QHostAddress::LocalHost, port);
    second.write(LinkRecord::make("error" + QByteArray(3'000'000, '\0')) + LinkRecord::make("x"));
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    QVERIFY2(tool.says("3 records of 3000020 bytes, 1 keep-alive, 2 connections"), tool.said);
    QCOMPARE(QDir(in).entryList(QDir::Files | QDir::Hidden),
        QStringList({u"000009"_s, u"000010"_s, u"000011"_s, u"000012"_s}));
    QCOMPARE(place.readFile(u"in/000009"_s), "old");
    QCOMPARE(place.readFile(u"in/000010"_s), "tempdb_t1");
    QCOMPARE(place.readFile(u"in/000011"_s), "tempdb");
    QVERIFY(place.readFile(u"in/000012"_s) == "error" + QByteArray(3'000'000, '\0'));
}

void TestMorvanectl::receiveDropsAnOversizedRecord()
{
    Tool tool({u"receive"_s, u"0"_s, u"--limit"_s, u"9"_s});
    const quint16 port = portOf(tool);
    QTcpSocket liar, honest;
    liar.connectToHost(QHostAddress::LocalHost, port);
    liar.write(LinkRecord::make("tempdb1234") + LinkRecord::make("tempdb"));
    QTRY_COMPARE_WITH_TIMEOUT(liar.state(), QAbstractSocket::UnconnectedState, patience);
    QTRY_VERIFY2(tool.complains("10 bytes, more than 9"), tool.complaints);
    honest.connectToHost(QHostAddress::LocalHost, port);
    honest.write(LinkRecord::make("tempdb123"));
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("000001  9 bytes  tempdb..."), patience);
    tool.raise(SIGINT);
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    QVERIFY2(tool.says("1 record of 9 bytes, 0 keep-alives, 2 connections"), tool.said);
}

void TestMorvanectl::receiveReportsASilentLink()
{
    Tool tool({u"receive"_s, u"0"_s, u"--silence"_s, u"1"_s});
    const quint16 port = portOf(tool);
    QTcpSocket link;
    link.connectToHost(QHostAddress::LocalHost, port);
    QTRY_VERIFY_WITH_TIMEOUT(tool.complains("has been silent for 1 second\n"), patience);
    QVERIFY(!tool.says("Heard of again"));
    QCOMPARE(tool.complaints.count('\n'), 1);
    tool.complaints.clear();
    link.write(LinkRecord::make("live"));
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("Heard of again"), patience);
    QTRY_VERIFY_WITH_TIMEOUT(tool.complains("has been silent"), patience);
}

void TestMorvanectl::receiveClosesOrStopsReadingOnRequest()
{
    const QByteArray records = LinkRecord::make("tempdb1") + LinkRecord::make("live")
        + LinkRecord::make("tempdb2") + LinkRecord::make("tempdb3");
    Tool closing({u"receive"_s, u"0"_s, u"--close-after"_s, u"2"_s});
    const quint16 closingPort = portOf(closing);
    for (int outage = 0; outage < 2; ++outage) {
        QTcpSocket link;
        link.connectToHost(QHostAddress::LocalHost, closingPort);
        link.write(records);
        QVERIFY(link.waitForConnected());
        QTRY_COMPARE_WITH_TIMEOUT(link.state(), QAbstractSocket::UnconnectedState, patience);
    }
    closing.raise(SIGTERM);
    QTRY_COMPARE_WITH_TIMEOUT(closing.status(), 0, patience);
    QVERIFY2(closing.says("4 records of 28 bytes, 2 keep-alives, 2 connections"), closing.said);

    Tool stopping({u"receive"_s, u"0"_s, u"--stop-after"_s, u"1"_s});
    const quint16 stoppingPort = portOf(stopping);
    QTcpSocket link, other;
    link.connectToHost(QHostAddress::LocalHost, stoppingPort);
    // More than the buffers of both kernels hold.
    link.write(records + LinkRecord::make(QByteArray(60'000'000, 'x')));
    QTRY_VERIFY_WITH_TIMEOUT(stopping.says("Reading no more after 1 record"), patience);
    other.connectToHost(QHostAddress::LocalHost, stoppingPort);
    other.write(LinkRecord::make("tempdb"));
    QTRY_VERIFY_WITH_TIMEOUT(stopping.says("000002  6 bytes"), patience);
    QCOMPARE(link.state(), QAbstractSocket::ConnectedState);
    QVERIFY(link.bytesToWrite() > 0);
}

void TestMorvanectl::adminShowsModulesAndSendsTypedCommands()
{
    const Workplace place;
    Tool tool({u"admin"_s, u"admin"_s});
    tool.write("About\nInput_Data_On");
    tool.closeWriteChannel();
    QTRY_VERIFY_WITH_TIMEOUT(tool.complains("\"Input_Data_On\" waits for one"), patience);
    AdminLink module("node1");
    QTRY_COMPARE_WITH_TIMEOUT(
        module.received, command("About", 1) + command("Input_Data_On", 2), patience);
    module.write(BusFrame::makeAction("About", "one\n\x1b[2Jtwo\n", "", 1)
        + BusFrame::makeAction("Watch_Arrow", "7", "data", -1));
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("node1  Watch_Arrow id -1, 4 bytes of data: 7"), patience);
    QVERIFY(tool.says("node1  connected\n"));
    QVERIFY2(tool.says("node1  About id 1:\n    one\n    \\x1b[2Jtwo\n"), tool.said);
    QCOMPARE(tool.status(), -1); // the end of its input does not end it
    tool.raise(SIGTERM);
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    QVERIFY2(tool.complains("status 5: node1"), tool.complaints);
}

void TestMorvanectl::adminWaitsForWhatItsCommandsDo()
{
    const Workplace place;
    Tool tool({u"admin"_s, u"admin"_s, u"any text"_s, u"About"_s, u"QuitSignal"_s});
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("Listening"), patience);
    AdminLink module("node1");
    QByteArray expected = command("any text", 1) + command("About", 2);
    QTRY_COMPARE_WITH_TIMEOUT(module.received, expected, patience);
    module.write(BusFrame::makeAction("About", "of another command", "", 1));
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("of another command"), patience);
    QCOMPARE(module.received, expected);
    module.write(BusFrame::makeAction("About", "me", "", 2));
    expected += command("QuitSignal", 3);
    QTRY_COMPARE_WITH_TIMEOUT(module.received, expected, patience);
    QCOMPARE(tool.status(), -1);
    module.disconnectFromServer();
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    QVERIFY(!tool.complains("\n"));
}

void TestMorvanectl::adminTakesItsOwnWordsForAllOrForOneModule()
{
    const Workplace place;
    Tool tool({u"admin"_s, u"admin"_s, u"watch"_s, u"on"_s, u"arrows off node2"_s, u"--stay"_s});
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("Listening"), patience);
    AdminLink first("node1");
    QTRY_COMPARE_WITH_TIMEOUT(first.received, command("Input_Data_On", 1), patience);
    AdminLink second("node2");
    QTRY_COMPARE_WITH_TIMEOUT(second.received, command("Watch_Arrow_Off", 2), patience);

    first.received.clear();
    second.received.clear();
    tool.write("watch\nquit node3\nabout\nwatching all\nquit  node1\n");
    const QByteArray toAll = command("About", 3) + command("watching all", 4);
    QTRY_COMPARE_WITH_TIMEOUT(first.received, toAll + command("QuitSignal", 5), patience);
    QTRY_COMPARE_WITH_TIMEOUT(second.received, toAll, patience);
    QTRY_VERIFY(tool.complains("no module \"node3\" is connected"));
    QVERIFY(tool.complains("\"watch\" is no command"));
}

void TestMorvanectl::adminPrintsOneObjectALine()
{
    const Workplace place;
    Tool tool({u"admin"_s, u"admin"_s, u"quit"_s, u"--json"_s});
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("listening"), patience);
    AdminLink module("node1");
    QTRY_COMPARE_WITH_TIMEOUT(module.received, command("QuitSignal", 1), patience);
    module.write(BusFrame::makeAction("InData", "one\n\x1b two", QByteArray("\0\xff", 2), -1));
    QVERIFY(module.waitForBytesWritten());
    module.disconnectFromServer();
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    QVERIFY(!tool.says("\x1b"));
    QStringList events;
    for (const QByteArray &line : tool.said.trimmed().split('\n')) {
        const QJsonObject event = QJsonDocument::fromJson(line).object();
        events.append(event[u"event"].toString() + event[u"module"].toString());
        if (event[u"event"] == u"action"_s) {
            QCOMPARE(event[u"message"].toString(), u"one\n\x1b two"_s);
            QCOMPARE(event[u"base64"].toString(), u"AP8="_s);
            QCOMPARE(event[u"id"].toInt(), -1);
        }
    }
    QCOMPARE(events,
        QStringList(
            {u"listening"_s, u"connectednode1"_s, u"actionnode1"_s, u"disconnectednode1"_s}));
}

void TestMorvanectl::adminTakesNoNameAway()
{
    const Workplace place;
    const BusServer live(u"live"_s);
    place.writeFile(u"file"_s, "mine");
    for (const QString &name : {u"live"_s, u"file"_s}) {
        Tool tool({u"admin"_s, name});
        QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 1, patience);
        QVERIFY2(tool.complains("cannot listen as"), tool.complaints);
    }
    QCOMPARE(place.readFile(u"file"_s), "mine");
    const BusClient stillThere(u"live"_s);

    Tool killed({u"admin"_s, u"stale"_s});
    QTRY_VERIFY_WITH_TIMEOUT(killed.says("Listening"), patience);
    killed.raise(SIGKILL);
    QTRY_COMPARE_WITH_TIMEOUT(killed.state(), QProcess::NotRunning, patience);
    QVERIFY(QFile::exists(place.path(u"stale"_s)));
    Tool successor({u"admin"_s, u"stale"_s});
    QTRY_VERIFY_WITH_TIMEOUT(successor.says("Listening"), patience);
}

QTEST_GUILESS_MAIN(TestMorvanectl)
#include "tst_morvanectl.moc"
