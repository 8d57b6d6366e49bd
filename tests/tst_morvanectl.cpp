#include "BusFrame.h"
#include "Record.h"

#include <QCoreApplication>
#include <QDir>
#include <QHostAddress>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

constexpr int patience = 10'000; // milliseconds; a loaded machine starts processes slowly
constexpr qsizetype longestBody = 50'000'000; // bytes of a frame that a module takes

// The tool as a process. What it has said is gathered.
class Tool : public QProcess
{
public:
    explicit Tool(const QStringList &arguments)
    {
        start(QCoreApplication::applicationDirPath() + u"/morvanectl"_s, arguments);
        if (!waitForStarted())
            qFatal("morvanectl does not start");
    }
    ~Tool() override
    {
        kill();
        waitForFinished();
    }
    [[nodiscard]] bool says(const char *text)
    {
        said += readAllStandardOutput();
        return said.contains(text);
    }
    [[nodiscard]] bool complains(const char *text)
    {
        complaints += readAllStandardError();
        return complaints.contains(text);
    }
    void raise(int signal) const { ::kill(pid_t(processId()), signal); }
    // -1 while it runs, or if it did not end by itself.
    [[nodiscard]] int status() const
    {
        return state() == NotRunning && exitStatus() == NormalExit ? exitCode() : -1;
    }
    QByteArray said, complaints;
};

// A module's own server: keeps the bytes that arrive, or goes away at the first of them.
class Module : public QLocalServer
{
public:
    explicit Module(const QString &name)
    {
        connect(this, &QLocalServer::newConnection, this, [this] {
            socket = nextPendingConnection();
            connect(socket, &QIODevice::readyRead, this,
                [this] { goesAway ? socket->abort() : void(received += socket->readAll()); });
        });
        if (!listen(name))
            qFatal("cannot listen");
    }
    QByteArray received;
    bool goesAway = false;

private:
    QLocalSocket *socket = nullptr;
};

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

} // namespace

class TestMorvanectl : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void wrongUsageGivesStatusTwo_data();
    void wrongUsageGivesStatusTwo();
    void sendWaitsForTheModuleAndKeepsTheOrder();
    void sendTakesStandardInput();
    void sendKnowsWhatAFrameCarries_data();
    void sendKnowsWhatAFrameCarries();
    void sendSaysThatTheModuleWentAway();
    void receiveWritesEveryRecordToAFileOfItsOwn();
    void receiveDropsAnOversizedRecord();
    void adminShowsModulesAndSendsTypedCommands();
    void adminWaitsForWhatItsCommandsDo();
    void adminFailsWithoutAnAnswer();
    void adminTakesNoNameAway();

private:
    QString write(const QString &name, const QByteArray &content) const;
    [[nodiscard]] QByteArray read(const QString &name) const;
    [[nodiscard]] static quint16 portOf(Tool &tool);

    std::unique_ptr<QTemporaryDir> folder; // the bus lies in it too
};

void TestMorvanectl::init()
{
    folder = std::make_unique<QTemporaryDir>(u"/tmp/tst_morvanectl-XXXXXX"_s);
    qputenv("TMPDIR", QFile::encodeName(folder->path()));
}

QString TestMorvanectl::write(const QString &name, const QByteArray &content) const
{
    QFile file(folder->filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write");
    return file.fileName();
}

QByteArray TestMorvanectl::read(const QString &name) const
{
    QFile file(folder->filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no such file)");
}

quint16 TestMorvanectl::portOf(Tool &tool)
{
    if (!QTest::qWaitFor([&] { return tool.says("\n"); }, patience))
        return 0;
    const QRegularExpression line(u"Listening on 127.0.0.1 port (\\d+)"_s);
    return line.match(QString::fromUtf8(tool.said)).captured(1).toUShort();
}

void TestMorvanectl::wrongUsageGivesStatusTwo_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("complaint");
    const auto row = [](const char *name, const QString &arguments, const char *complaint) {
        QTest::newRow(name) << arguments.split(u' ', Qt::SkipEmptyParts) << QByteArray(complaint);
    };
    row("no subcommand", u""_s, "subcommand is missing");
    row("a subcommand that does not exist", u"fly"_s, "\"fly\"");
    row("an option that does not exist", u"admin x --fly"_s, "'fly'");
    row("a bus name that no socket can have", u"admin "_s + QString(107, u'n'), "106");
    row("a time that is no number", u"admin x --wait soon"_s, "\"soon\"");
    row("nothing to send", u"send mod"_s, "MODULE FILE");
    row("a kind that modules drop", u"send mod /etc/passwd --kind Error"_s, "\"Error\"");
    row("a version that marks a command", u"send mod /etc/passwd --data-version 203"_s, "203");
    row("a record name with a folder", u"send mod /etc/passwd --name a/b"_s, "\"a/b\"");
    row("a record name that is never sent", u"send mod - --name .a"_s, "\".a\"");
    row("standard input without a name", u"send mod -"_s, "--name");
    row("two files of one name", u"send mod /etc/passwd /x/passwd"_s, "\"passwd\"");
    row("a port out of range", u"receive 65536"_s, "\"65536\"");
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
    const QString b = write(u"b"_s, QByteArray(6'000'000, 'b')); // more than is read ahead
    const QString a = write(u"a"_s, {});
    Tool tool({u"send"_s, u"mod"_s, b, a, u"--wait"_s, u"20"_s});
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("Waiting for mod"), patience);
    const Module module(u"mod"_s);
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    const QByteArray expected = BusFrame::makeName("morvanectl")
        + dataFrame("tempdb", u"b"_s, QByteArray(6'000'000, 'b')) + dataFrame("tempdb", u"a"_s, "");
    QTRY_VERIFY(module.received == expected);
    QVERIFY(tool.says("2 records sent to mod"));
}

void TestMorvanectl::sendTakesStandardInput()
{
    const Module module(u"mod"_s);
    Tool tool(
        u"send mod - --name x --kind tempdb_t --data-version 201 --as me --quiet"_s.split(u' '));
    tool.write("one\ntwo");
    tool.closeWriteChannel();
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
    QTRY_COMPARE(module.received,
        BusFrame::makeName("me")
            + BusFrame::makeData(201, DataRecord{"tempdb_t", u"x"_s, "one\ntwo"}.write()));
    QVERIFY(!tool.says("\n"));
}

void TestMorvanectl::sendKnowsWhatAFrameCarries_data()
{
    const qsizetype overhead = dataFrame("tempdb", u"big"_s, {}).size() - 4;
    QTest::addColumn<qsizetype>("size");
    QTest::addColumn<bool>("fits");
    QTest::newRow("the longest frame") << longestBody - overhead << true;
    QTest::newRow("one byte more") << longestBody - overhead + 1 << false;
    QTest::newRow("a file longer than any frame") << longestBody + 1 << false;
}

void TestMorvanectl::sendKnowsWhatAFrameCarries()
{
    QFETCH(qsizetype, size);
    QFETCH(bool, fits);
    const Module module(u"mod"_s);
    const QString big = write(u"big"_s, {});
    QVERIFY(QFile::resize(big, size));
    Tool tool({u"send"_s, u"mod"_s, big});
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), fits ? 0 : 1, patience);
    QCOMPARE(tool.complains("50000000"), !fits);
    const qsizetype greeting = BusFrame::makeName("morvanectl").size();
    if (fits)
        QTRY_COMPARE(module.received.size(), greeting + 4 + longestBody);
    else
        QVERIFY(module.received.size() <= greeting);
}

void TestMorvanectl::sendSaysThatTheModuleWentAway()
{
    Tool unheard({u"send"_s, u"mod"_s, write(u"a"_s, "a")});
    QTRY_COMPARE_WITH_TIMEOUT(unheard.status(), 1, patience);
    QVERIFY2(unheard.complains("no module listens"), unheard.complaints);

    Module module(u"mod"_s);
    module.goesAway = true;
    Tool tool({u"send"_s, u"mod"_s, write(u"b"_s, QByteArray(40'000'000, 'b'))});
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 1, patience);
    QVERIFY2(tool.complains("closed the connection; 0 of 1 record had left"), tool.complaints);
}

void TestMorvanectl::receiveWritesEveryRecordToAFileOfItsOwn()
{
    QDir(folder->path()).mkdir(u"in"_s);
    write(u"in/000009"_s, "old");
    Tool tool({u"receive"_s, u"0"_s, u"--dir"_s, folder->filePath(u"in"_s), u"--count"_s, u"3"_s});
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
    QCOMPARE(QDir(folder->filePath(u"in"_s)).entryList(QDir::Files | QDir::Hidden),
        QStringList({u"000009"_s, u"000010"_s, u"000011"_s, u"000012"_s}));
    QCOMPARE(read(u"in/000009"_s), "old");
    QCOMPARE(read(u"in/000010"_s), "tempdb_t1");
    QCOMPARE(read(u"in/000011"_s), "tempdb");
    QVERIFY(read(u"in/000012"_s) == "error" + QByteArray(3'000'000, '\0'));
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

void TestMorvanectl::adminShowsModulesAndSendsTypedCommands()
{
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

void TestMorvanectl::adminFailsWithoutAnAnswer()
{
    Tool tool({u"admin"_s, u"admin"_s, u"About"_s, u"--wait"_s, u"1"_s});
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("Listening"), patience);
    const AdminLink module("node1");
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 1, patience);
    QVERIFY2(tool.complains("node1: no effect of \"About\""), tool.complaints);
}

void TestMorvanectl::adminTakesNoNameAway()
{
    const Module live(u"live"_s);
    write(u"file"_s, "mine");
    for (const QString &name : {u"live"_s, u"file"_s}) {
        Tool tool({u"admin"_s, name});
        QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 1, patience);
        QVERIFY2(tool.complains("cannot listen as"), tool.complaints);
    }
    QCOMPARE(read(u"file"_s), "mine");
    QLocalSocket socket;
    socket.connectToServer(u"live"_s);
    QCOMPARE(socket.state(), QLocalSocket::ConnectedState);

    Tool killed({u"admin"_s, u"stale"_s});
    QTRY_VERIFY_WITH_TIMEOUT(killed.says("Listening"), patience);
    killed.raise(SIGKILL);
    QTRY_COMPARE_WITH_TIMEOUT(killed.state(), QProcess::NotRunning, patience);
    QVERIFY(QFile::exists(folder->filePath(u"stale"_s)));
    Tool successor({u"admin"_s, u"stale"_s});
    QTRY_VERIFY_WITH_TIMEOUT(successor.says("Listening"), patience);
}

QTEST_GUILESS_MAIN(TestMorvanectl)
#include "tst_morvanectl.moc"
