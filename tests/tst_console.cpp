#include "BusEnds.h"
#include "ServiceSocket.h"
#include "Terminal.h"
#include "Tool.h"
#include "Workplace.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <array>

namespace {

// A module's connection to the administration server. It reads nothing: peek() shows all commands.
struct AdminLink : BusClient
{
    explicit AdminLink(const QByteArray &moduleName)
        : BusClient(u"admin"_s)
    {
        send(BusFrame::makeName(moduleName));
    }
    [[nodiscard]] QByteArray heard() { return peek(bytesAvailable()); }
};

// A console that is no tool of ours. It reads only while it waits for a line.
struct RawConsole : BusClient
{
    RawConsole()
        : BusClient(u"admin.control"_s)
    {
        setReadBufferSize(1);
    }
    [[nodiscard]] QJsonObject nextLine()
    {
        setReadBufferSize(0);
        const bool hasLine = QTest::qWaitFor([&] { return canReadLine(); });
        setReadBufferSize(1);
        return hasLine ? QJsonDocument::fromJson(readLine()).object() : QJsonObject();
    }
};

// The server to which the tool attaches, if the row says so. Otherwise the tool is the server.
struct Server
{
    Server()
    {
        QFETCH(bool, attached);
        if (!attached)
            return;
        service = std::make_unique<Tool>(u"admin admin --serve"_s);
        QTRY_VERIFY(service->says("Listening"));
    }
    [[nodiscard]] qint32 idOf(int number) const { return (service ? 1'000'000 : 0) + number; }
    [[nodiscard]] QByteArray command(const char *name, int number) const
    {
        return BusFrame::makeCommand(name, "", idOf(number));
    }
    std::unique_ptr<Tool> service;
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
    std::optional<Workplace> place;
private Q_SLOTS:
    void init() { place.emplace(); }
    void commandsWaitForWhatTheyDo_data() { bothWays(); }
    void commandsWaitForWhatTheyDo();
    void typedCommandsAreTakenAndActionsShown_data() { bothWays(); }
    void typedCommandsAreTakenAndActionsShown();
    void noNameIsTakenAway();
    void serviceStaysWhateverConsolesDo();
    void badConsoleHarmsNobody();
    void linesCanBeEditedOnATerminal();
    void longLineStaysWhole();
};

void TestConsole::commandsWaitForWhatTheyDo()
{
    const Server server;
    Tool tool(u"admin admin --json watch on \"about node2\" \"any text\" quit"_s);
    QTRY_VERIFY(tool.says("\"name\":\"admin\""));
    AdminLink first("node1");
    QTRY_COMPARE(first.heard(), server.command("Input_Data_On", 1));
    AdminLink second("node2");
    QTRY_COMPARE(second.heard(), server.command("About", 2));
    second.write(BusFrame::makeAction("About", "of another command", "", 1));
    QTRY_VERIFY(tool.says("of another command"));
    QCOMPARE(second.heard(), server.command("About", 2));
    second.write(
        BusFrame::makeAction("About", "one\n\x1b", QByteArray("\0\xff", 2), server.idOf(2)));
    const QByteArray toAll = server.command("any text", 3) + server.command("QuitSignal", 4);
    QTRY_COMPARE(second.heard(), server.command("About", 2) + toAll);
    QTRY_COMPARE(first.heard(), server.command("Input_Data_On", 1) + toAll);
    first.disconnectFromServer();
    QTRY_VERIFY(tool.says("disconnected"));
    QCOMPARE(tool.status(), -1);
    second.disconnectFromServer();
    QTRY_COMPARE(tool.status(), 0);
    QVERIFY2(!tool.complains("\n") && tool.says("\n"), tool.complaints);
    // Not the first line, which says "listening" or "attached".
    const QRegularExpression varying(u"^.*\n|,\"time\":\"[^\"]*Z\""_s);
    QCOMPARE(
        QString::fromUtf8(tool.said).remove(varying), uR"({"event":"connected","module":"node1"}
{"event":"connected","module":"node2"}
{"action":"About","event":"action","id":1,"message":"of another command","module":"node2"}
{"action":"About","base64":"AP8=","event":"action","id":%1,"message":"one\n\u001b","module":"node2"}
{"event":"disconnected","module":"node1"}
{"event":"disconnected","module":"node2"}
)"_s.arg(server.idOf(2)));
}

void TestConsole::typedCommandsAreTakenAndActionsShown()
{
    const Server server;
    Tool tool(u"admin admin watch on --stay"_s);
    QTRY_VERIFY(tool.says(" admin"));
    auto brief = std::make_unique<AdminLink>("node0");
    QTRY_COMPARE(brief->heard(), server.command("Input_Data_On", 1));
    brief->send(BusFrame::makeName("late"));
    QTRY_VERIFY(tool.says("late  was node0 before\n"));
    brief.reset();
    QTRY_VERIFY(tool.says("late  disconnected\n"));

    tool.write(
        "watch\nquit node0\nabout\n" + QByteArray(5'000, 'x') + "\nwatching all\nquit  node1");
    tool.closeWriteChannel();
    QTRY_VERIFY(tool.complains("\"quit  node1\" waits for one"));
    AdminLink module("node1");
    const QByteArray typed = server.command("About", 2) + server.command("watching all", 3)
        + server.command("QuitSignal", 4);
    QTRY_COMPARE(module.heard(), typed);
    QVERIFY(tool.complains("no module \"node0\" is connected"));
    QVERIFY(tool.complains("\"watch\" is not a command"));
    QVERIFY(tool.complains("a line of more than 4096 bytes"));
    module.write(BusFrame::makeAction("InData", QByteArray(65'537, 'm'), "", -1)
        + BusFrame::makeAction("About", "one\n\x1b[2Jtwo\n", "", 1)
        + BusFrame::makeAction("Watch_Arrow", "7", "data", -1));
    QTRY_VERIFY(tool.says("node1  Watch_Arrow id -1, 4 bytes of data: 7"));
    QVERIFY2(tool.says("mmm... (65537 bytes in all)\n"), "a long text is cut");
    QVERIFY2(tool.says("node1  About id 1:\n    one\n    \\x1b[2Jtwo\n"), tool.said);
    QCOMPARE(tool.status(), -1); // the end of its input does not end it
    tool.raise(SIGTERM);
    QTRY_COMPARE(tool.status(), 0);
    QCOMPARE(tool.complains("status 5: node1"), !server.service);
}

void TestConsole::serviceStaysWhateverConsolesDo()
{
    const ServiceSocket manager(place->path(u"manager"_s));
    qputenv("NOTIFY_SOCKET", place->path(u"manager"_s).toUtf8());
    qputenv("WATCHDOG_USEC", "100000");
    Tool service(u"admin admin --serve"_s);
    qunsetenv("NOTIFY_SOCKET");
    qunsetenv("WATCHDOG_USEC");
    QTRY_VERIFY(manager.signsOfLife > 0);
    QTRY_VERIFY(manager.heard().contains("READY=1"));
    for (const QString &name : {u"admin"_s, u"admin.control"_s})
        QCOMPARE(QFile::permissions(place->path(name)), QFile::Permissions(0x7770));

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
    QFile::remove(place->path(u"admin"_s)); // as a zealous cleaner does
    QTRY_VERIFY(QFile::exists(place->path(u"admin"_s)));
    AdminLink other("node2");
    QTRY_VERIFY(staying.says("node2  connected\n"));
    QVERIFY2(service.says("Command About to all (user "), service.said);
    other.setReadBufferSize(1);
    staying.write(("send-command node2 " + QByteArray(4'000, 'x') + '\n').repeated(600));
    QTRY_VERIFY(staying.complains("admin: node2 does not read its commands"));
    QVERIFY(Tool(u"admin admin about --wait 1"_s)
                .endsComplaining(1, "has had no effect within 1 second\n"));
    Tool hopeful(u"admin admin \"about node2\""_s);
    QTRY_VERIFY(service.says("Command About to node2"));
    other.disconnectFromServer();
    QVERIFY(hopeful.endsComplaining(1, "disconnected without an answer"));
    QCOMPARE(module.state(), QLocalSocket::ConnectedState);

    service.raise(SIGTERM);
    QVERIFY(service.endsComplaining(0, "status 5: node1\n"));
    QVERIFY(staying.endsComplaining(1, "the administration server has gone\n"));
}

void TestConsole::badConsoleHarmsNobody()
{
    Tool service(u"admin admin --serve"_s);
    AdminLink module("node1");
    QTRY_VERIFY(service.says("node1"));
    RawConsole console;
    QCOMPARE(console.nextLine()[u"event"], u"attached"_s);
    const QByteArrayList bad = {"no json", "[]", "{}", R"({"command":7,"id":1000001})",
        R"({"command":"QuitSignal"})", R"({"command":"QuitSignal","id":1})",
        R"({"command":"QuitSignal","id":1e300})", QByteArray(1'000'000, '['),
        R"({"command":"QuitSignal","id":1000001,"module":[]})", QByteArray(60'000, '['),
        R"({"command":"QuitSignal","id":1000001,"module":"node2"})"};
    for (const QByteArray &line : bad) {
        console.send(line + '\n');
        QCOMPARE(console.nextLine()[u"event"].toString(), u"error"_s);
    }
    QCOMPARE(module.heard(), "");

    // It reads nothing while much happens, and hears how much it has missed.
    Tool paused(u"admin admin"_s);
    QTRY_VERIFY(paused.says("connected: node1"));
    paused.raise(SIGSTOP);
    const std::array<RawConsole, 5> stopped;
    const QByteArray action = BusFrame::makeAction("InData", "m", QByteArray(1'000'000, 'd'), -1);
    for (int i = 0; i < 100; ++i)
        module.write(action);
    module.write(BusFrame::makeName("node3"));
    while (module.bytesToWrite() > 0)
        QVERIFY(module.waitForBytesWritten());
    QTRY_VERIFY(service.says("was node1 before"));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take their own
    const QByteArray memory = place->readFile(u"/proc/%1/status"_s.arg(service.processId()));
    const int kilobytes = std::atoi(memory.sliced(memory.indexOf("VmHWM:") + 6).constData());
    QVERIFY2(kilobytes > 0 && kilobytes < 130'000, QByteArray::number(kilobytes));
#endif
    RawConsole reading;
    QCOMPARE(reading.nextLine()[u"event"], u"attached"_s);
    module.send(BusFrame::makeName("node4"));
    QCOMPARE(reading.nextLine()[u"module"], u"node4"_s);
    QJsonObject line = console.nextLine();
    int read = 1;
    for (; !line.isEmpty() && line[u"event"] != u"missed"_s; ++read)
        line = console.nextLine();
    QCOMPARE(line[u"count"].toInt() + read, 103);
    QCOMPARE(line[u"modules"][0][u"module"].toString(), u"node4"_s);
    paused.raise(SIGCONT);
    QTRY_VERIFY(paused.says("node4  was "));
    QVERIFY2(paused.complains("morvanectl: admin: missed "), paused.complaints);
    const std::array<RawConsole, 8> crowd;
    QCOMPARE(RawConsole().nextLine()[u"event"], u"error"_s); // one too many
    console.send("{\"command\":\"one\\ntwo\",\"id\":1000002}\n");
    QTRY_COMPARE(module.heard(), BusFrame::makeCommand("one\ntwo", "", 1'000'002));
    QTRY_VERIFY2(service.says("Command one\\ntwo to all (user "), service.said);
}

void TestConsole::noNameIsTakenAway()
{
    const BusServer live(u"live"_s);
    place->writeFile(u"file"_s, "mine");
    for (const QString &name : {u"live"_s, u"file"_s})
        QVERIFY(Tool(u"admin "_s + name).endsComplaining(1, "cannot listen as"));
    QCOMPARE(place->readFile(u"file"_s), "mine");
    const BusClient stillThere(u"live"_s);
    const BusServer silent(u"live.control"_s);
    QVERIFY(Tool(u"admin live"_s).endsComplaining(1, "does not answer like a control"));

    for (int start = 0; start < 2; ++start) {
        Tool killedAtOnce(u"admin stale"_s);
        QTRY_VERIFY(killedAtOnce.says("Listening"));
    }
    QVERIFY(QFile::exists(place->path(u"stale"_s)));
}

void TestConsole::linesCanBeEditedOnATerminal()
{
    Terminal terminal(u"TERM=xterm PS1=$ sh -i"_s);
    if (!terminal.isThere())
        QSKIP("no terminal can be had here: /dev/pts is missing");
    terminal.type("./morvanectl admin admin\n");
    QTRY_VERIFY(terminal.shows("> "));
    AdminLink module("node1");
    terminal.type("bout\1a\n"); // Ctrl+A goes to the beginning of the line
    terminal.type("\x1b[A\n"); // the line before this one
    // Nothing ends the module but a "stop" with a yes, and no unknown word reaches it.
    terminal.type(
        "abuot\nquit\nQuitSignal\nstop nobody\nstop node1\nn\nsend-command node1 Raw x\n");
    QByteArray heard = BusFrame::makeCommand("About", "", 1) + BusFrame::makeCommand("About", "", 2)
        + BusFrame::makeCommand("Raw x", "", 3);
    QTRY_COMPARE(module.heard(), heard);
    // The shell stops it, finds the terminal as it was, and has it go on.
    terminal.type("sto");
    QTRY_VERIFY(terminal.rows().last().startsWith("> sto"));
    terminal.type("\x1a");
    QTRY_VERIFY(terminal.shows("Stopped"));
    terminal.type("stty -a | grep -o .icanon\n");
    QTRY_VERIFY(terminal.shows("\n icanon"));
    terminal.type("fg; exit\n"); // with the tool's status
    QTRY_VERIFY(terminal.rows().last().startsWith("> sto"));
    terminal.type("\tnod\t\ny\n"); // the Tab key completes both words
    heard += BusFrame::makeCommand("QuitSignal", "", 4);
    QTRY_COMPARE(module.heard(), heard);
    for (const char *text : {"; did you mean \"about\"?",
             "\"exit\" leaves this tool: the modules end", "Nothing was stopped"})
        QVERIFY2(terminal.shows(text), terminal.written);
    QVERIFY2(terminal.written.contains("\x1b[32m"), "in colour");
    terminal.type("\x04"); // the end of the input
    QTRY_COMPARE(terminal.state(), QProcess::NotRunning);
    QCOMPARE(terminal.exitCode(), 0);

    Terminal plain(u"TERM=dumb ./morvanectl admin admin"_s);
    plain.type("quit\nexit\n");
    QTRY_COMPARE(plain.state(), QProcess::NotRunning);
    QVERIFY2(plain.shows("\"exit\" leaves") && !plain.written.contains('\x1b'), plain.written);
}

void TestConsole::longLineStaysWhole()
{
    Terminal terminal(u"TERM=xterm NO_COLOR=1 ./morvanectl admin admin"_s);
    if (!terminal.isThere())
        QSKIP("no terminal can be had here: /dev/pts is missing");
    terminal.resize(30);
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

QTEST_GUILESS_MAIN(TestConsole)
#include "tst_console.moc"
