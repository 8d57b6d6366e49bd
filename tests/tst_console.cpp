#include "BusEnds.h"
#include "ServiceSocket.h"
#include "Terminal.h"
#include "Tool.h"
#include "Workplace.h"

#include <QJsonDocument>

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
    // Sends so many large actions, and then its new name.
    void act(Tool &service, int times, const char *newName)
    {
        const QByteArray data(1'000'000, 'd');
        write(BusFrame::makeAction("InData", "m", data, -1).repeated(times));
        send(BusFrame::makeName(newName));
        QTRY_VERIFY(service.says(newName));
    }
};

// A console that is no tool of ours. It reads only while it waits for a line.
struct RawConsole : BusClient
{
    RawConsole()
        : BusClient(u"admin.control"_s)
    {
        setReadBufferSize(1);
    }
    [[nodiscard]] QJsonDocument nextLine()
    {
        setReadBufferSize(0);
        const bool hasLine = QTest::qWaitFor([&] { return canReadLine(); }, longestWait);
        setReadBufferSize(1);
        return QJsonDocument::fromJson(hasLine ? readLine() : QByteArray());
    }
};

// After the first line, which says "listening" or "attached", and without the times.
const QString shownEvents = uR"({"event":"connected","module":"node1"}
{"event":"connected","module":"node2"}
{"action":"About","event":"action","id":1,"message":"of another command","module":"node2"}
{"action":"About","base64":"AP8=","event":"action","id":%1,"message":"one\n\u001b","module":"node2"}
{"before":"node1","event":"renamed","module":"node3"}
{"event":"disconnected","module":"node3"}
{"event":"disconnected","module":"node2"}
)"_s;

} // namespace

class TestConsole : public QObject
{
    Q_OBJECT
    std::optional<Workplace> place;
private Q_SLOTS:
    void init() { place.emplace(); }
    void commandsWaitForWhatTheyDo();
    void typedCommandsAreTakenAndActionsShown();
    void noNameIsTakenAway();
    void serviceStaysWhateverConsolesDo();
    void commandsWithoutEffectAreReported();
    void badConsoleHarmsNobody();
    void unreadEventsAreLimitedAndCounted();
    void linesCanBeEditedOnATerminal();
    void longLineStaysWhole();
};

void TestConsole::commandsWaitForWhatTheyDo()
{
    std::optional<Tool> service;
    for (const int idsBefore : {0, 1'000'000}) { // as the server itself, and attached to one
        Tool tool(u"admin admin --json watch on \"about node2\" \"any text\" quit"_s);
        const auto command = [&](const char *name, int number) {
            return BusFrame::makeCommand(name, "", idsBefore + number);
        };
        QTRY_VERIFY(tool.says("\"name\":\"admin\""));
        AdminLink first("node1");
        QTRY_COMPARE(first.heard(), command("Input_Data_On", 1));
        AdminLink second("node2");
        QTRY_COMPARE(second.heard(), command("About", 2));
        second.write(BusFrame::makeAction("About", "of another command", "", 1));
        QTRY_VERIFY(tool.says("of another command"));
        QCOMPARE(second.heard(), command("About", 2));
        second.write(BusFrame::makeAction("About", "one\n\x1b", "\0\xff"_ba, idsBefore + 2));
        const QByteArray toAll = command("any text", 3) + command("QuitSignal", 4);
        QTRY_COMPARE(second.heard(), command("About", 2) + toAll);
        QTRY_COMPARE(first.heard(), command("Input_Data_On", 1) + toAll);
        first.send(BusFrame::makeName("node3"));
        first.disconnectFromServer();
        QTRY_VERIFY(tool.says("disconnected"));
        QCOMPARE(tool.status(), -1);
        second.disconnectFromServer();
        QVERIFY(tool.endsSaying(0, "\n"));
        QCOMPARE(tool.complaints, "");
        const QRegularExpression varying(u"^.*\n|,\"time\":\"[^\"]*Z\""_s);
        QCOMPARE(QString::fromUtf8(tool.said).remove(varying), shownEvents.arg(idsBefore + 2));
        service.emplace(u"admin admin --serve"_s);
        QTRY_VERIFY(service->says("Listening"));
    }
}

void TestConsole::typedCommandsAreTakenAndActionsShown()
{
    Tool tool(u"admin admin watch on --stay"_s);
    auto brief = std::make_unique<AdminLink>("node0");
    QTRY_COMPARE(brief->heard(), BusFrame::makeCommand("Input_Data_On", "", 1));
    brief->send(BusFrame::makeName("late"));
    brief.reset();
    QTRY_VERIFY(tool.says("late  was node0 before\n") && tool.says("late  disconnected\n"));

    // It reads no further while a thousand commands wait.
    tool.write(QByteArray("quit node0\n").repeated(5'000) + "watch\nabout\n"
        + QByteArray(5'000, 'x') + "\nwatching all\nquit  node1");
    tool.closeWriteChannel();
    QTRY_VERIFY(tool.complains("\n") && tool.complaints.count(" waits for one\n") >= 1'000);
    QVERIFY(Tool(u"admin admin"_s).endsComplaining(1, "cannot listen as"));
    QVERIFY(tool.complains("\n") && tool.complaints.count(" waits for one\n") < 2'000);
    AdminLink module("node1");
    QTRY_COMPARE(module.heard(),
        BusFrame::makeCommand("About", "", 2) + BusFrame::makeCommand("watching all", "", 3)
            + BusFrame::makeCommand("QuitSignal", "", 4));
    for (const char *text : {"no module \"node0\" is connected", "\"watch\" is not a command",
             "a line of more than 4096 bytes"})
        QVERIFY2(tool.complains(text), text);
    module.write(BusFrame::makeAction("InData", QByteArray(65'537, 'm'), "", -1)
        + BusFrame::makeAction("About", "one\n\x1b[2Jtwo\n", "", 1)
        + BusFrame::makeAction("Watch_Arrow", "7", "data", -1));
    QTRY_VERIFY(tool.says("node1  Watch_Arrow id -1, 4 bytes of data: 7"));
    QVERIFY2(tool.says("mmm... (65537 bytes in all)\n"), "a long text is cut");
    QVERIFY2(tool.says("node1  About id 1:\n    one\n    \\x1b[2Jtwo\n"), tool.said);
    QCOMPARE(tool.status(), -1); // the end of its input does not end it
    tool.raise(SIGTERM);
    QVERIFY(tool.endsComplaining(0, "status 5: node1"));
}

void TestConsole::noNameIsTakenAway()
{
    place->writeFile(u"file"_s, "mine");
    QVERIFY(Tool(u"admin file"_s).endsComplaining(1, "cannot listen as"));
    QCOMPARE(place->readFile(u"file"_s), "mine");
    const BusServer silent(u"live.control"_s);
    QVERIFY(Tool(u"admin live"_s).endsComplaining(1, "does not answer like a control"));

    for (int start = 0; start < 2; ++start) {
        Tool killedAtOnce(u"admin stale"_s);
        QTRY_VERIFY(killedAtOnce.says("Listening"));
    }
    QVERIFY(QFile::exists(place->path(u"stale"_s)));
}

void TestConsole::serviceStaysWhateverConsolesDo()
{
    const ServiceSocket manager(place->path(u"manager"_s));
    qputenv("NOTIFY_SOCKET", place->path(u"manager"_s).toUtf8());
    qputenv("WATCHDOG_USEC", "100000");
    Tool service(u"admin admin --serve"_s);
    qunsetenv("NOTIFY_SOCKET");
    qunsetenv("WATCHDOG_USEC");
    QTRY_VERIFY(manager.signsOfLife.contains("WATCHDOG=1"));
    QTRY_VERIFY(manager.heard.contains("READY=1"));
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
    QTRY_COMPARE(manager.heard.last(), "STATUS=1 module (node1), 2 consoles");
    QVERIFY2(module.heard().contains(asked), "each has ids of its own, from 1000001 on");
    killed.raise(SIGKILL);
    QTRY_VERIFY(service.says("Console detached"));
    QFile::remove(place->path(u"admin"_s)); // as a zealous cleaner does
    const AdminLink other("node2"); // the name comes back
    QTRY_VERIFY(staying.says("node2  connected\n"));
    service.raise(SIGTERM);
    QVERIFY(service.endsComplaining(0, "status 5: node1, node2\n"));
    QVERIFY(staying.endsComplaining(1, "the administration server has gone\n"));
}

void TestConsole::commandsWithoutEffectAreReported()
{
    Tool service(u"admin admin --serve"_s);
    AdminLink module("node1"), other("node2");
    other.setReadBufferSize(1);
    QTRY_VERIFY(service.says("node2  connected\n"));
    Tool tool(u"admin admin"_s);
    tool.write(("send-command node2 " + QByteArray(4'000, 'x') + '\n').repeated(600));
    QTRY_VERIFY(tool.complains("admin: node2 does not read its commands"));
    QVERIFY(Tool(u"admin admin about --wait 1"_s)
                .endsComplaining(1, "has had no effect within 1 second\n"));
    Tool hopeful(u"admin admin \"about node2\""_s);
    QTRY_VERIFY(service.says("Command About to node2"));
    other.disconnectFromServer();
    QVERIFY(hopeful.endsComplaining(1, "disconnected without an answer"));
    QCOMPARE(module.state(), QLocalSocket::ConnectedState);
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
    console.send("{\"command\":\"one\\ntwo\",\"id\":1000002}\n");
    QTRY_COMPARE(module.heard(), BusFrame::makeCommand("one\ntwo", "", 1'000'002));
    QTRY_VERIFY2(service.says("Command one\\ntwo to all (user "), service.said);
}

void TestConsole::unreadEventsAreLimitedAndCounted()
{
    Tool service(u"admin admin --serve"_s);
    AdminLink module("node1");
    QTRY_VERIFY(service.says("node1"));
    RawConsole console;
    Tool paused(u"admin admin"_s);
    QTRY_VERIFY(paused.says("Attached"));
    paused.raise(SIGSTOP);
    module.act(service, 20, "node2"); // more than one console may leave unread
    const std::array<RawConsole, 13> stopped;
    module.act(service, 80, "node3"); // more than all together may
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take their own
    const QByteArray memory = place->readFile(u"/proc/%1/status"_s.arg(service.processId()));
    const int kilobytes = std::atoi(memory.sliced(memory.indexOf("VmHWM:") + 6).constData());
    QVERIFY2(kilobytes > 0 && kilobytes < 130'000, QByteArray::number(kilobytes));
#endif
    RawConsole reading;
    QCOMPARE(reading.nextLine()[u"event"], u"attached"_s);
    QCOMPARE(RawConsole().nextLine()[u"event"], u"error"_s); // one too many
    module.send(BusFrame::makeName("node4"));
    QCOMPARE(reading.nextLine()[u"module"], u"node4"_s);
    QJsonDocument line = console.nextLine();
    int read = 1;
    for (; read < 20 && line[u"event"] != u"missed"_s; ++read)
        line = console.nextLine();
    QCOMPARE(line[u"count"].toInt() + read, 105);
    QCOMPARE(line[u"modules"][0][u"module"].toString(), u"node4"_s);
    paused.raise(SIGCONT);
    QTRY_VERIFY(paused.says("node4  was "));
    QVERIFY2(paused.complains("morvanectl: admin: missed "), paused.complaints);
}

void TestConsole::linesCanBeEditedOnATerminal()
{
    Terminal terminal(u"TERM=xterm PS1=$ sh -i"_s);
    if (!terminal.isThere())
        QSKIP("no terminal can be had here: /dev/pts is missing");
    terminal.type("./morvanectl admin admin\n");
    AdminLink module("node1");
    QTRY_VERIFY(terminal.shows("node1  connected"));
    // Ctrl+A goes to the beginning of the line, and the arrow to the line before this one. Nothing
    // ends the module but a "stop" with a yes, and no unknown word reaches it.
    terminal.type("bout\1a\n\x1b[A\nabuot\nquit\nQuitSignal\nstop nobody\nstop node1\nn\n"
                  "send-command node1 Raw x\n");
    // The shell stops it, finds the terminal as it was, and has it go on.
    terminal.type("  sto");
    QTRY_VERIFY(terminal.rows().last().startsWith(">   sto"));
    terminal.type("\x1a");
    QTRY_VERIFY(terminal.shows("Stopped"));
    terminal.type("stty -a | grep -o .icanon\n");
    QTRY_VERIFY(terminal.shows("\n icanon"));
    terminal.type("fg; exit\n"); // with the tool's status
    QTRY_VERIFY(terminal.rows().last().startsWith(">   sto"));
    terminal.type("\tnod\t\ny\n"); // the Tab key completes both words
    QByteArray wanted;
    for (int id = 0; const char *command : {"About", "About", "Raw x", "QuitSignal"})
        wanted += BusFrame::makeCommand(command, "", ++id);
    QTRY_COMPARE(module.heard(), wanted);
    for (const char *text :
        {"; did you mean \"about\"?", "\"exit\" leaves this tool: the modules end",
            "Nothing was stopped", "no such module is connected", "\x1b[32m"}) // green
        QVERIFY2(terminal.written.contains(text), text);
    terminal.type("\x04"); // the end of the input
    QTRY_COMPARE(terminal.status(), 0);
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

    Terminal plain(u"TERM=dumb ./morvanectl admin plain"_s);
    plain.type("quit\nexit\n");
    QTRY_COMPARE(plain.status(), 0);
    QVERIFY2(plain.shows("\"exit\" leaves") && !plain.written.contains('\x1b'), plain.written);
}

QTEST_GUILESS_MAIN(TestConsole)
#include "tst_console.moc"
