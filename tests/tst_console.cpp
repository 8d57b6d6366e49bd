#include "BusEnds.h"
#include "ServiceSocket.h"
#include "Terminal.h"
#include "Tool.h"
#include "Workplace.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <array>

namespace {

// A module's connection to the administration server. It reads nothing: peek() shows all commands.
class AdminLink : public BusClient
{
public:
    explicit AdminLink(const QByteArray &moduleName)
        : BusClient(u"admin"_s)
    {
        send(BusFrame::makeName(moduleName));
    }
    [[nodiscard]] QByteArray heard() { return peek(bytesAvailable()); }
};

// A console that is no tool of ours.
class RawConsole : public BusClient
{
public:
    RawConsole()
        : BusClient(u"admin.control"_s)
    {
    }
    [[nodiscard]] bool waitForLine()
    {
        return QTest::qWaitFor([&] { return canReadLine(); });
    }
    [[nodiscard]] QJsonObject nextLine()
    {
        return waitForLine() ? QJsonDocument::fromJson(readLine()).object() : QJsonObject();
    }
};

// The tool in front of the modules: the administration server itself, or attached to one.
class Console
{
public:
    explicit Console(const QString &arguments)
    {
        QFETCH(bool, attached);
        if (attached) {
            service.emplace(u"admin admin --serve"_s);
            if (!QTest::qWaitFor([&] { return service->says("Listening"); }, longestWait))
                qFatal("nobody serves");
            firstId = 1'000'001;
        }
        tool.emplace(u"admin admin "_s + arguments);
    }
    [[nodiscard]] QByteArray command(const char *name, int number) const
    {
        return BusFrame::makeCommand(name, "", idOf(number));
    }
    [[nodiscard]] qint32 idOf(int number) const { return firstId + number - 1; }
    [[nodiscard]] bool isServer() const { return !service; }
    [[nodiscard]] Tool *operator->() { return &*tool; }

private:
    std::optional<Tool> service, tool;
    qint32 firstId = 1;
};

void bothWays()
{
    QTest::addColumn<bool>("attached");
    QTest::newRow("as the server itself") << false;
    QTest::newRow("attached to a server") << true;
}

} // namespace

class TestConsole : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void commandsWaitForWhatTheyDo_data() { bothWays(); }
    void commandsWaitForWhatTheyDo();
    void typedCommandsAreTakenAndActionsShown_data() { bothWays(); }
    void typedCommandsAreTakenAndActionsShown();
    void noNameIsTakenAway();
    void serviceStaysWhateverConsolesDo();
    void badConsoleHarmsNobody();
    void linesCanBeEditedOnATerminal();
    void longLineStaysWhole();
    void shellStopsItAndHasItGoOn();
};

void TestConsole::commandsWaitForWhatTheyDo()
{
    const Workplace place;
    Console tool(u"--json watch on \"about node2\" \"any text\" quit"_s);
    QTRY_VERIFY(tool->says("\"name\":\"admin\""));
    AdminLink first("node1");
    QTRY_COMPARE(first.heard(), tool.command("Input_Data_On", 1));
    AdminLink second("node2");
    QTRY_COMPARE(second.heard(), tool.command("About", 2));
    second.write(BusFrame::makeAction("About", "of another command", "", 1));
    QTRY_VERIFY(tool->says("of another command"));
    QCOMPARE(second.heard(), tool.command("About", 2));
    second.write(BusFrame::makeAction("About", "one\n\x1b", QByteArray("\0\xff", 2), tool.idOf(2)));
    const QByteArray toAll = tool.command("any text", 3) + tool.command("QuitSignal", 4);
    QTRY_COMPARE(second.heard(), tool.command("About", 2) + toAll);
    QTRY_COMPARE(first.heard(), tool.command("Input_Data_On", 1) + toAll);
    first.disconnectFromServer();
    QTRY_VERIFY(tool->says("disconnected"));
    QCOMPARE(tool->status(), -1);
    second.disconnectFromServer();
    QTRY_COMPARE(tool->status(), 0);
    QVERIFY2(!tool->complains("\n") && tool->says("\n"), tool->complaints);
    const QRegularExpression time(u",\"time\":\"[^\"]*Z\""_s);
    QString said = QString::fromUtf8(tool->said).remove(time);
    said.remove(0, said.indexOf(u'\n') + 1); // listening or attached
    QCOMPARE(said, uR"({"event":"connected","module":"node1"}
{"event":"connected","module":"node2"}
{"action":"About","event":"action","id":1,"message":"of another command","module":"node2"}
{"action":"About","base64":"AP8=","event":"action","id":%1,"message":"one\n\u001b","module":"node2"}
{"event":"disconnected","module":"node1"}
{"event":"disconnected","module":"node2"}
)"_s.arg(tool.idOf(2)));
}

void TestConsole::typedCommandsAreTakenAndActionsShown()
{
    const Workplace place;
    Console tool(u"watch on --stay"_s);
    QTRY_VERIFY(tool->says(" admin"));
    auto brief = std::make_unique<AdminLink>("node0");
    QTRY_COMPARE(brief->heard(), tool.command("Input_Data_On", 1));
    brief->send(BusFrame::makeName("late"));
    QTRY_VERIFY(tool->says("late  was node0 before\n"));
    brief.reset();
    QTRY_VERIFY(tool->says("late  disconnected\n"));

    tool->write(
        "watch\nquit node0\nabout\n" + QByteArray(5'000, 'x') + "\nwatching all\nquit  node1");
    tool->closeWriteChannel();
    QTRY_VERIFY(tool->complains("\"quit  node1\" waits for one"));
    AdminLink module("node1");
    const QByteArray typed =
        tool.command("About", 2) + tool.command("watching all", 3) + tool.command("QuitSignal", 4);
    QTRY_COMPARE(module.heard(), typed);
    QVERIFY(tool->complains("no module \"node0\" is connected"));
    QVERIFY(tool->complains("\"watch\" is not a command"));
    QVERIFY(tool->complains("a line of more than 4096 bytes"));
    module.write(BusFrame::makeAction("About", "one\n\x1b[2Jtwo\n", "", 1)
        + BusFrame::makeAction("Watch_Arrow", "7", "data", -1));
    QTRY_VERIFY(tool->says("node1  Watch_Arrow id -1, 4 bytes of data: 7"));
    QVERIFY2(tool->says("node1  About id 1:\n    one\n    \\x1b[2Jtwo\n"), tool->said);
    QCOMPARE(tool->status(), -1); // the end of its input does not end it
    tool->raise(SIGTERM);
    QTRY_COMPARE(tool->status(), 0);
    QCOMPARE(tool->complains("status 5: node1"), tool.isServer());
}

void TestConsole::serviceStaysWhateverConsolesDo()
{
    const Workplace place;
    const ServiceSocket manager(place.path(u"manager"_s));
    qputenv("NOTIFY_SOCKET", place.path(u"manager"_s).toUtf8());
    Tool service(u"admin admin --serve"_s);
    qunsetenv("NOTIFY_SOCKET");
    QTRY_VERIFY(manager.heard().contains("READY=1"));
    for (const QString &name : {u"admin"_s, u"admin.control"_s})
        QCOMPARE(QFileInfo(place.path(name)).permissions() & ~QFile::Permissions(0x7000),
            QFile::Permissions(0x0770));

    AdminLink module("node1");
    Tool killed(u"admin admin"_s), staying(u"admin admin"_s);
    for (Tool *console : {&killed, &staying}) {
        QTRY_VERIFY(console->says("Attached to admin; connected: node1"));
        console->write("about\n");
    }
    const QByteArray asked = BusFrame::makeCommand("About", "", 1'000'001);
    QTRY_COMPARE(module.heard().size(), 2 * asked.size());
    QCOMPARE(manager.heard().last(), "STATUS=1 module (node1), 2 consoles");
    QVERIFY2(module.heard().contains(asked), "each has ids of its own, from 1000001 on");
    killed.raise(SIGKILL);
    QTRY_VERIFY(service.says("Console detached"));
    QFile::remove(place.path(u"admin"_s)); // as a zealous cleaner does
    QTRY_VERIFY(QFile::exists(place.path(u"admin"_s)));
    AdminLink other("node2");
    QTRY_VERIFY(staying.says("node2  connected\n"));
    QVERIFY2(service.says("Command About to all (user "), service.said);
    QCOMPARE(module.state(), QLocalSocket::ConnectedState);

    service.raise(SIGTERM);
    QVERIFY2(service.endsComplaining(0, "status 5: node1, node2"), service.complaints);
    QVERIFY2(
        staying.endsComplaining(1, "the administration server has gone\n"), staying.complaints);
}

void TestConsole::badConsoleHarmsNobody()
{
    const Workplace place;
    Tool service(u"admin admin --serve"_s);
    QTRY_VERIFY(service.says("Listening"));
    AdminLink module("node1");
    RawConsole console;
    QCOMPARE(console.nextLine()[u"event"], u"attached"_s);
    const QByteArrayList bad = {"no json", "[]", "{}", "{\"command\":7,\"id\":1000001}",
        "{\"command\":\"QuitSignal\"}", "{\"command\":\"QuitSignal\",\"id\":1}",
        "{\"command\":\"QuitSignal\",\"id\":1e300}",
        "{\"command\":\"QuitSignal\",\"id\":1000001,\"module\":[]}",
        "{\"command\":\"QuitSignal\",\"id\":1000001,\"module\":\"node2\"}",
        QByteArray(1'000'000, '['), QByteArray(60'000, '[')};
    for (const QByteArray &line : bad) {
        console.send(line + '\n');
        QJsonObject answer;
        do // the module may have come last
            answer = console.nextLine();
        while (answer[u"event"] == u"connected"_s);
        QCOMPARE(answer[u"event"].toString(), u"error"_s);
    }
    QCOMPARE(module.heard(), "");

    // It reads nothing while much happens, and hears how much it has missed.
    std::array<RawConsole, 5> stopped;
    console.setReadBufferSize(1);
    for (RawConsole &other : stopped)
        other.setReadBufferSize(1);
    const QByteArray action = BusFrame::makeAction("InData", "m", QByteArray(1'000'000, 'd'), -1);
    for (int i = 0; i < 100; ++i)
        module.write(action);
    module.write(BusFrame::makeName("node3"));
    while (module.bytesToWrite() > 0)
        QVERIFY(module.waitForBytesWritten());
    QTRY_VERIFY(service.says("was node1 before"));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take their own
    QFile memory(u"/proc/%1/status"_s.arg(service.processId()));
    QVERIFY(memory.open(QIODevice::ReadOnly));
    const QRegularExpression peak(u"VmHWM:\\s+(\\d+) kB"_s);
    const qint64 kilobytes =
        peak.match(QString::fromUtf8(memory.readAll())).captured(1).toLongLong();
    QVERIFY2(kilobytes < 130'000, QByteArray::number(kilobytes));
#endif
    RawConsole reading;
    QCOMPARE(reading.nextLine()[u"event"], u"attached"_s);
    module.send(BusFrame::makeName("node4"));
    QCOMPARE(reading.nextLine()[u"module"], u"node4"_s);
    console.setReadBufferSize(0);
    int read = 0;
    QJsonObject line;
    while (line[u"event"] != u"missed"_s && console.waitForLine()) {
        line = console.nextLine();
        ++read;
    }
    QCOMPARE(line[u"count"].toInt() + read, 103);
    QCOMPARE(line[u"modules"][0][u"module"].toString(), u"node4"_s);
    console.send("{\"command\":\"one\\ntwo\",\"id\":1000002}\n");
    QTRY_COMPARE(module.heard(), BusFrame::makeCommand("one\ntwo", "", 1'000'002));
    QTRY_VERIFY2(service.says("Command one\\ntwo to all (user "), service.said);
}

void TestConsole::noNameIsTakenAway()
{
    const Workplace place;
    const BusServer live(u"live"_s);
    place.writeFile(u"file"_s, "mine");
    for (const QString &name : {u"live"_s, u"file"_s}) {
        Tool tool(u"admin "_s + name);
        QVERIFY2(tool.endsComplaining(1, "cannot listen as"), tool.complaints);
    }
    QCOMPARE(place.readFile(u"file"_s), "mine");
    const BusClient stillThere(u"live"_s);

    for (int start = 0; start < 2; ++start) {
        Tool killedAtOnce(u"admin stale"_s);
        QTRY_VERIFY(killedAtOnce.says("Listening"));
    }
    QVERIFY(QFile::exists(place.path(u"stale"_s)));
}

void TestConsole::linesCanBeEditedOnATerminal()
{
    const Workplace place;
    Terminal terminal({u"morvanectl"_s, u"admin"_s, u"admin"_s}, "xterm");
    if (!terminal.isThere())
        QSKIP("no terminal can be had here: /dev/pts is missing");
    QTRY_VERIFY(terminal.shows("> "));
    AdminLink module("node1");
    terminal.type("bout\x01"
                  "a\n"); // to the beginning of the line
    QByteArray heard = BusFrame::makeCommand("About", "", 1);
    QTRY_COMPARE(module.heard(), heard);
    terminal.type("\x1b[A\n"); // the line before this one
    heard += BusFrame::makeCommand("About", "", 2);
    QTRY_COMPARE(module.heard(), heard);
    // Nothing ends the module but a "stop" with a yes, and no unknown word reaches it.
    terminal.type(
        "abuot\nquit\nQuitSignal\nstop nobody\nstop node1\nn\nsend-command node1 Raw x\n");
    heard += BusFrame::makeCommand("Raw x", "", 3);
    QTRY_COMPARE(module.heard(), heard);
    terminal.type("sto\tnod\t\ny\n"); // the Tab key completes both words
    heard += BusFrame::makeCommand("QuitSignal", "", 4);
    QTRY_COMPARE(module.heard(), heard);
    for (const char *text : {"; did you mean \"about\"?",
             "\"exit\" leaves this tool: the modules end", "Nothing was stopped"})
        QVERIFY2(terminal.shows(text), terminal.written);
    QVERIFY2(terminal.written.contains("\x1b[32m"), "in colour");
    terminal.type("\x04"); // the end of the input
    QTRY_COMPARE(terminal.state(), QProcess::NotRunning);
    QCOMPARE(terminal.exitCode(), 0);

    Terminal plain({u"morvanectl"_s, u"admin"_s, u"admin"_s}, "dumb");
    plain.type("quit\nexit\n");
    QTRY_COMPARE(plain.state(), QProcess::NotRunning);
    QVERIFY2(plain.shows("\"exit\" leaves") && !plain.written.contains('\x1b'), plain.written);
}

void TestConsole::longLineStaysWhole()
{
    const Workplace place;
    Terminal terminal({u"NO_COLOR=1"_s, u"morvanectl"_s, u"admin"_s, u"admin"_s}, "xterm");
    if (!terminal.isThere())
        QSKIP("no terminal can be had here: /dev/pts is missing");
    terminal.resize(30);
    QTRY_VERIFY(terminal.shows("> "));
    AdminLink module("node1");
    QTRY_VERIFY(terminal.shows("node1"));
    const QByteArray line = "> about " + QByteArray(64, 'x'); // three rows
    terminal.type(line.sliced(2));
    QTRY_COMPARE(terminal.text().right(line.size()), line);
    // What is said stands above it, also in a window of another width.
    QByteArrayList names = {"node1"};
    for (const int columns : {30, 20, 50}) {
        terminal.resize(columns);
        names.append("in" + QByteArray::number(columns));
        module.send(BusFrame::makeName(names.last()));
        QTRY_VERIFY(terminal.text().contains(names.last() + "  was "));
        QTRY_COMPARE(terminal.text().right(line.size()), line);
        for (const QByteArray &name : names)
            QVERIFY2(terminal.text().contains(name + "  "), terminal.text());
        QVERIFY2(columns == 50 || terminal.text().count('x') == 64, terminal.text());
    }
    QVERIFY2(!terminal.written.contains("\x1b[32m"), "without colour");
}

void TestConsole::shellStopsItAndHasItGoOn()
{
    const Workplace place;
    Terminal shell({u"sh"_s, u"-i"_s}, "xterm");
    if (!shell.isThere())
        QSKIP("no terminal can be had here: /dev/pts is missing");
    shell.type("morvanectl admin admin\n");
    QTRY_VERIFY(shell.shows("> "));
    shell.type("abo");
    QTRY_VERIFY(shell.shows("> abo"));
    shell.type("\x1a");
    QTRY_VERIFY(shell.shows("Stopped"));
    shell.type("stty -a | grep -o .icanon\n");
    QTRY_VERIFY(shell.shows("\n icanon"));
    shell.type("fg\n");
    QTRY_VERIFY(shell.rows().last().startsWith("> abo"));
    AdminLink module("node1");
    shell.type("ut\n");
    QTRY_COMPARE(module.heard(), BusFrame::makeCommand("About", "", 1));
}

QTEST_GUILESS_MAIN(TestConsole)
#include "tst_console.moc"
