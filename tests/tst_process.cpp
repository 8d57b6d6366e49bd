#include "BusEnds.h"
#include "ModuleProcess.h"
#include "Record.h"
#include "TcpPeer.h"
#include "UdpRelay.h"

#include <QElapsedTimer>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

QByteArray recordFrame(const QString &name, const QByteArray &payload)
{
    return BusFrame::makeData(1, DataRecord{"error", name, payload}.write());
}

QByteArray portLine(const TcpPeer &peer)
{
    return "Port=" + QByteArray::number(peer.serverPort()) + '\n';
}

} // namespace

// The processes start together, so that their passes run side by side.
class TestProcess : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void recordsSurviveAKill();
    void lossOfTheAdministrationServerGivesStatusFive();
    void argumentsNameTheSettingsFiles();
    void filesCrossABadLinkBothWays();
    void startUpFollowsItsOrder();
    void rubbishHarmsNobody();
    void peerThatTalksCostsNoMemory();
    void quitSignalGivesStatusZero();
    void stopSignalsGiveStatusZeroAndKeepTheSpool();

private:
    static void startUdp(ModuleProcess &process, UdpRelay &toIt, const UdpRelay &fromIt)
    {
        toIt.target = freeUdpPort();
        const QByteArray main =
            "Protocol=UDP\nTimeout=3\nLocalPort=" + QByteArray::number(toIt.target)
            + "\nPort=" + QByteArray::number(fromIt.port()) + '\n';
        process.startWith(
            {u"-settings"_s, process.writeSettings(u"m.ini"_s, "AdminServerName=\n", main)});
    }

    std::unique_ptr<BusServer> server(const ModuleProcess &process, const QString &name)
    {
        return std::make_unique<BusServer>(process.place.path(name));
    }

    TcpPeer peer;
    ModuleProcess whole; // administration server, one outgoing connection, peer
    std::unique_ptr<BusServer> admin, other;
    QElapsedTimer started;

    ModuleProcess killed; // no administration server; the peer comes after the kill

    ModuleProcess orphan; // loses its administration server
    std::unique_ptr<BusServer> orphanAdmin;

    ModuleProcess twice; // two settings files
    ModuleProcess bare; // no settings file on the command line

    ModuleProcess east, west; // in UDP mode, with a bad link between them
    UdpRelay toEast{1, 20}, toWest{2, 20};
};

void TestProcess::initTestCase()
{
    started.start();
    admin = server(whole, u"admin"_s);
    other = server(whole, u"other"_s);
    whole.startWith({u"-settings"_s,
        whole.writeSettings(
            u"m.ini"_s, "AdminServerName=admin\nConnections=other\n", portLine(peer))});

    killed.startWith(
        {u"-settings"_s, killed.writeSettings(u"m.ini"_s, "AdminServerName=\n", "Port=1\n")});

    orphanAdmin = server(orphan, u"admin"_s);
    orphan.startWith(
        {u"-settings"_s, orphan.writeSettings(u"m.ini"_s, "AdminServerName=admin\n", "")});

    twice.startWith({u"-settings"_s, twice.writeSettings(u"a.ini"_s, "LogName=a\n", ""),
        u"--settings"_s, u"-settings"_s, twice.writeSettings(u"b.ini"_s, "LogName=b\n", "")});

    startUdp(east, toEast, toWest);
    startUdp(west, toWest, toEast);

    bare.writeSettings(u"morvane.ini"_s, "AdminServerName=\n", "");
    bare.startWith({u"-Settings"_s, u"other.ini"_s, u"-settings"_s});
}

void TestProcess::recordsSurviveAKill()
{
    QTRY_VERIFY_WITH_TIMEOUT(killed.isListening(), patience);
    BusClient client(killed.place.path(u"me"_s));
    QByteArrayList expected;
    for (int i = 0; i < 200; ++i) {
        const QString name = u"r%1"_s.arg((i * 7) % 200, 3, 10, QChar(u'0'));
        client.write(recordFrame(name, name.toLatin1()));
        expected.append("error" + name.toLatin1());
    }
    QTRY_COMPARE(killed.spooled().size(), 200);
    killed.kill();
    QVERIFY(killed.waitForFinished());

    TcpPeer back;
    killed.startWith(
        {u"-settings"_s, killed.writeSettings(u"m.ini"_s, "AdminServerName=\n", portLine(back))});
    std::sort(expected.begin(), expected.end());
    QTRY_COMPARE(back.bodies.size(), expected.size());
    QCOMPARE(back.bodies, expected);
    QTRY_VERIFY(killed.spooled().isEmpty());
}

void TestProcess::lossOfTheAdministrationServerGivesStatusFive()
{
    QTRY_COMPARE_WITH_TIMEOUT(orphanAdmin->sockets.size(), 1, patience);
    orphanAdmin.reset();
    QTRY_COMPARE(orphan.state(), QProcess::NotRunning);
    QCOMPARE(orphan.exitCode(), 5);
}

void TestProcess::argumentsNameTheSettingsFiles()
{
    const QString start = u"Start Ok!"_s, warning = u"Warrning: No Connections "_s;
    const QString noAdmin = u"Error load settings AdminServerName: NoName "_s;
    QTRY_COMPARE(twice.place.logged(u"b.log"_s), QStringList({noAdmin, warning, start}));
    QCOMPARE(twice.place.logged(u"a.log"_s), QStringList({noAdmin, warning}));
    QTRY_COMPARE(bare.place.logged(u"morvane.log"_s).mid(0, 2), QStringList({warning, start}));
}

void TestProcess::filesCrossABadLinkBothWays()
{
    std::mt19937 random(3);
    QHash<QString, QByteArray> contents;
    for (const QString &name : {u"a file"_s, u"Zero to nine"_s, u"Б"_s, u"one"_s, u"two"_s}) {
        QByteArray content = "tempdb";
        for (int i = 0; i < 10'000; ++i)
            content += char(random());
        contents.insert(name, content);
        for (const ModuleProcess *process : {&east, &west})
            process->place.writeFile(u"spool/"_s + name, content);
    }
    contents.remove(u"Б"_s); // cannot be sent, and is set aside
    for (const ModuleProcess *process : {&east, &west}) {
        QTRY_COMPARE_WITH_TIMEOUT(process->spooled(), QStringList(), patience);
        QCOMPARE(QDir(process->place.path(u"spool/refused"_s)).entryList(QDir::Files),
            QStringList{u"Б"_s});
        for (auto file = contents.cbegin(); file != contents.cend(); ++file)
            QTRY_COMPARE(process->place.readFile(file.key()), file.value());
    }
}

void TestProcess::startUpFollowsItsOrder()
{
    QTRY_COMPARE_WITH_TIMEOUT(other->heard(), QStringList{u"200 me   0"_s}, patience);
    QVERIFY(started.elapsed() > 4'500);
    QTRY_VERIFY_WITH_TIMEOUT(whole.isListening(), patience);
    QVERIFY(started.elapsed() > 14'000);
    QCOMPARE(admin->heard(), QStringList{u"200 me   0"_s});
    QCOMPARE(whole.place.logged(u"morvane.log"_s),
        QStringList({u"Start Ok!"_s, u"New Out Connnection"_s, u"New Out Connnection"_s,
            u"Start server: me Ok!!!! "_s}));
}

void TestProcess::rubbishHarmsNobody()
{
    QTRY_VERIFY_WITH_TIMEOUT(whole.isListening(), patience);
    const QByteArrayList rubbish = {QByteArray(5'000, '\xff'), QByteArray(5'000, '\0'),
        QByteArray::fromHex("02faf080 00"), QByteArray::fromHex("77359400 01"),
        QByteArray::fromHex("00000009 01 7fffffff 41414141"),
        QByteArray::fromHex("0000000a cb 000000ff 4142434445"), recordFrame(u"../x"_s, "x"),
        recordFrame(u"x"_s, "x").left(20)};
    std::vector<std::unique_ptr<BusClient>> clients;
    for (int i = 0; i < 300; ++i) {
        clients.push_back(std::make_unique<BusClient>(whole.place.path(u"me"_s)));
        clients.back()->send(rubbish.at(i % rubbish.size()));
        if (i % 3 == 0)
            clients.back()->abort();
    }
    BusClient sender(whole.place.path(u"me"_s));
    sender.send(recordFrame(u"good"_s, "1"));
    QTRY_COMPARE(peer.bodies, QByteArrayList{"error1"});
    clients.clear();
    sender.send(recordFrame(u"good"_s, "2"));
    QTRY_COMPARE(peer.bodies.size(), 2);
    QVERIFY(whole.spooled().isEmpty() && !QFile::exists(whole.place.path(u"x"_s)));
}

void TestProcess::peerThatTalksCostsNoMemory()
{
    QTRY_VERIFY(peer.socket);
    const qint64 before = whole.residentMegabytes();
    peer.socket->write(QByteArray(60'000'000, 'x'));
    QTRY_COMPARE_WITH_TIMEOUT(peer.socket->bytesToWrite(), 0, patience);
    QTRY_VERIFY(whole.residentMegabytes() < before + 20);
}

void TestProcess::quitSignalGivesStatusZero()
{
    QTRY_VERIFY_WITH_TIMEOUT(whole.isListening(), patience);
    admin->send(
        BusFrame::makeCommand("Input_Data_On", "", 1) + BusFrame::makeCommand("About", "", 9));
    QTRY_COMPARE(admin->frames().last().id, 9);
    peer.socket->abort();
    QTRY_VERIFY(admin->heard().contains(u"202 InData Connection established.  -1"_s));
    // The answer to the second command finds nobody, which does not count any more.
    admin->send(BusFrame::makeCommand("QuitSignal", "", 1) + BusFrame::makeCommand("About", "", 2));
    admin->sockets.first()->flush();
    admin->dropConnections();
    QTRY_COMPARE(whole.state(), QProcess::NotRunning);
    QCOMPARE(whole.exitStatus(), QProcess::NormalExit);
    QCOMPARE(whole.exitCode(), 0);
}

void TestProcess::stopSignalsGiveStatusZeroAndKeepTheSpool()
{
    const std::pair<ModuleProcess *, int> cases[] = {{&bare, SIGINT}, {&east, SIGTERM}};
    for (const auto &[process, signal] : cases) {
        QTRY_VERIFY_WITH_TIMEOUT(process->isListening(), patience);
        for (const QString &name : {u"stays"_s, u"stays too"_s})
            process->place.writeFile(u"spool/"_s + name, QByteArray(900'000, 'x'));
        ::kill(pid_t(process->processId()), signal);
        QTRY_COMPARE(process->state(), QProcess::NotRunning);
        QCOMPARE(process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process->exitCode(), 0);
        QCOMPARE(process->spooled(), QStringList({u"stays"_s, u"stays too"_s}));
    }
}

QTEST_GUILESS_MAIN(TestProcess)
#include "tst_process.moc"
