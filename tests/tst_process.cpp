#include "BusEnds.h"
#include "Channel.h"
#include "ModuleProcess.h"
#include "ServiceSocket.h"
#include "TcpPeer.h"
#include "UdpRelay.h"

#include <QElapsedTimer>
#include <QRegularExpression>

#include <cstring>
#include <list>

// The processes start together, so that their passes run side by side.
class TestProcess : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void startUpFollowsItsOrderAndIsReported();
    void commandLineIsExplained();
    void lossOfTheAdministrationServerGivesStatusFive();
    void filesCrossABadLinkAndStayAfterAStop();
    void rubbishHarmsNobodyAndCostsNoMemory();
    void quitSignalGivesStatusZero();
    void linkWithoutAcknowledgementsIsGivenUp();

private:
    void startWithoutAdmin();
    void startUdp(ModuleProcess &process, UdpRelay &toIt, const UdpRelay &fromIt) const;

    TcpPeer peer;
    ModuleProcess whole; // administration server, one outgoing connection, peer
    ServiceSocket manager{whole.place.path(u"notify"_s)};
    std::optional<BusServer> admin, other;
    QElapsedTimer started;

    ModuleProcess orphan; // two settings files; loses its administration server
    ModuleProcess parting; // the same together with its stop
    std::optional<BusServer> orphanAdmin, partingAdmin;

    TcpPeer silentPeer;
    ModuleProcess stuck; // its peer takes no bytes

    ModuleProcess east, west; // in UDP mode, with a bad link between them
    UdpRelay toEast{1}, toWest{2};
    const QStringList names = {u"a file"_s, u"Zero to nine"_s, u"one"_s, u"two"_s};
    const QByteArray content = noise(10'000, 3);
};

void TestProcess::initTestCase()
{
    started.start();
    admin.emplace(whole.place.path(u"admin"_s));
    other.emplace(whole.place.path(u"other"_s));
    // No settings file on the command line.
    whole.writeSettings(u"morvane.ini"_s, "AdminServerName=admin\nConnections=other\n",
        "StatusFile=status.prom\nPort=" + QByteArray::number(peer.serverPort()) + '\n');
    whole.addToEnvironment(u"NOTIFY_SOCKET"_s, whole.place.path(u"notify"_s));
    whole.addToEnvironment(u"WATCHDOG_USEC"_s, u"6000000"_s);
    whole.startWith({u"-Settings"_s, u"other.ini"_s, u"-settings"_s});

    orphanAdmin.emplace(orphan.place.path(u"admin"_s));
    orphan.startWith({u"-settings"_s, orphan.writeSettings(u"a.ini"_s, "LogName=a\n", ""),
        u"--settings"_s, u"-settings"_s,
        orphan.writeSettings(u"b.ini"_s, "LogName=b\nAdminServerName=admin\n", "")});

    partingAdmin.emplace(parting.place.path(u"admin"_s));
    parting.setChildProcessModifier([] { // nobody reads its standard error
        int ends[2];
        if (::pipe(ends) == 0 && ::dup2(ends[1], STDERR_FILENO) >= 0)
            ::close(ends[0]);
    });
    parting.startWith({u"-settings"_s,
        parting.writeSettings(u"m.ini"_s, "AdminServerName=admin\n", ""), u"a remark"_s});

    startWithoutAdmin();
}

void TestProcess::startWithoutAdmin()
{
    silentPeer.setReading(false);
    silentPeer.setKernelBuffer(65'536);
    const QString settings = stuck.writeSettings(u"m.ini"_s, "AdminServerName=\nServerName=\n",
        "StatusFile=status.prom\nLiveMessageTimeout=1\nPort="
            + QByteArray::number(silentPeer.serverPort()) + '\n');
    for (int number = 0; number < 20; ++number)
        stuck.record("error", QString::number(number), QByteArray(500'000, 'x'));
    stuck.startWith({u"-settings"_s, settings});

    east.addToEnvironment(
        u"QT_LOGGING_RULES"_s, u"default.debug=false;morvane.module.debug=true"_s);
    east.setProcessChannelMode(QProcess::SeparateChannels);
    startUdp(east, toEast, toWest);
    startUdp(west, toWest, toEast);
}

void TestProcess::startUdp(ModuleProcess &process, UdpRelay &toIt, const UdpRelay &fromIt) const
{
    toIt.target = freeUdpPort();
    const QString main =
        u"Protocol=UDP\nTimeout=3\nStatusFile=status.prom\nLocalPort=%1\nPort=%2\n"_s;
    process.startWith({u"-settings"_s,
        process.writeSettings(u"m.ini"_s, "AdminServerName=\n",
            main.arg(toIt.target).arg(fromIt.localPort()).toUtf8())});
    for (const QString &name : names)
        process.record("error", name, name.toUtf8() + content);
}

void TestProcess::startUpFollowsItsOrderAndIsReported()
{
    QTRY_COMPARE(other->heard(), QStringList{u"200 me   0"_s});
    QVERIFY(started.elapsed() > 4'500);
    QTRY_VERIFY(whole.place.logged(u"morvane.log"_s).contains(u"Start server: me Ok!!!! "_s));
    QVERIFY(started.elapsed() > 14'000);
    QCOMPARE(admin->heard(), QStringList{u"200 me   0"_s});
    QStringList entries = whole.place.logged(u"morvane.log"_s);
    const QString start = entries.takeAt(1);
    QVERIFY2(start.startsWith(u"This is morvane 5.4."_s) && start.endsWith(u"/morvane.ini"_s),
        qPrintable(start));
    QCOMPARE(entries,
        QStringList({u"Start Ok!"_s, u"New Out Connnection"_s, u"New Out Connnection"_s,
            u"Start server: me Ok!!!! "_s}));

    QTRY_VERIFY(manager.heard.contains("READY=1"));
    QCOMPARE(manager.heard.last(5),
        QByteArrayList({"STATUS=waiting for \"other\" on the bus, link up, 0 waiting",
            "STATUS=waiting for the administration server admin, link up, 0 waiting",
            "STATUS=joining the bus, link up, 0 waiting", "STATUS=link up, 0 waiting", "READY=1"}));
    QVERIFY(manager.signsOfLife.contains("EXTEND_TIMEOUT_USEC=90000000"));
    QTRY_VERIFY(manager.signsOfLife.count("WATCHDOG=1") > 1);
    QTRY_VERIFY(whole.place.readFile(u"status.prom"_s).contains("link_up{module=\"me\"} 1\n"));
    other.reset();
    QTRY_COMPARE(manager.heard.last(), "STATUS=not connected to \"other\", link up, 0 waiting");
}

void TestProcess::commandLineIsExplained()
{
    Program process;
    const std::pair<QString, const char *> remarks[] = {
        {u"--Help"_s, "Argument \"--Help\" has no effect, see --help"},
        {u"-settings"_s, "\"-settings\" at the end has no effect: the name of a file is missing"},
        {u"-settings a -settings -settings"_s,
            "2 settings files: they are read in turn, and the last one decides"},
    };
    for (const auto &[arguments, remark] : remarks) {
        process.run(u"morvane"_s, (u"--version "_s + arguments).split(u' '));
        QTRY_COMPARE(process.status(), 0);
        QCOMPARE(process.readAllStandardOutput(),
            "morvane 5.4.18:eb0bac411f09, support library 1.0.0\n");
        QCOMPARE(process.readAllStandardError(), "morvane: "_ba + remark + '\n');
    }
    process.run(u"morvane"_s, {u"--help"_s});
    QTRY_COMPARE(process.status(), 0);
    QVERIFY(process.readAllStandardOutput().startsWith("Usage: morvane [-settings FILE]\n"));
    process.setStandardOutputFile(u"/dev/full"_s);
    process.run(u"morvane"_s, {u"--version"_s});
    QTRY_COMPARE(process.status(), 1);
}

void TestProcess::lossOfTheAdministrationServerGivesStatusFive()
{
    QTRY_COMPARE(orphanAdmin->sockets.size(), 1);
    orphanAdmin.reset();
    QTRY_COMPARE(orphan.status(), 5);
    const QString warning = u"Warrning: No Connections "_s;
    const QStringList entries = orphan.place.logged(u"b.log"_s);
    QCOMPARE(entries.mid(0, 2), QStringList({warning, u"Start Ok!"_s}));
    QVERIFY2(entries.value(2).endsWith(u"/b.ini"_s), qPrintable(entries.value(2)));
    QCOMPARE(entries.last(), u"Stopped, exit status 5"_s);
    QCOMPARE(orphan.place.logged(u"a.log"_s),
        QStringList({u"Error load settings AdminServerName: NoName "_s, warning}));

    QTRY_COMPARE(partingAdmin->sockets.size(), 1);
    QCOMPARE(parting.state(), QProcess::Running);
    parting.raise(SIGSTOP);
    partingAdmin.reset();
    parting.raise(SIGTERM);
    parting.raise(SIGCONT);
    QTRY_COMPARE(parting.status(), 0);
}

void TestProcess::filesCrossABadLinkAndStayAfterAStop()
{
    for (const ModuleProcess *process : {&east, &west}) {
        QTRY_COMPARE(process->spooled(), QStringList());
        for (const QString &name : names)
            QTRY_VERIFY(process->place.readFile(name) == "error" + name.toUtf8() + content);
        const auto shows = [&](const QByteArray &line) {
            return process->place.readFile(u"status.prom"_s).contains("\nmorvane_" + line + '\n');
        };
        QTRY_VERIFY(shows("udp_files_delivered_total{module=\"me\"} 4"));
        QTRY_VERIFY(shows("waiting_files{module=\"me\"} 0")); // counted again
    }
    QCOMPARE(east.readAllStandardError(), "Start Scanning\n"); // no other category's lines

    toEast.target = toWest.target = 0; // nothing arrives any more
    for (const auto &[process, signal] : {std::pair(&west, SIGINT), std::pair(&east, SIGTERM)}) {
        QTRY_VERIFY(process->isListening());
        for (const QString &name : {u"stays"_s, u"stays too"_s})
            process->place.writeFile(u"spool/"_s + name, QByteArray(900'000, 'x'));
        process->raise(SIGHUP); // opens the log anew, nothing else
        process->raise(signal);
        QTRY_COMPARE(process->status(), 0);
        QCOMPARE(process->spooled(), QStringList({u"stays"_s, u"stays too"_s}));
        QCOMPARE(process->place.logged(u"morvane.log"_s).last(),
            u"Stopped by SIG%1, exit status 0"_s.arg(QLatin1StringView(::sigabbrev_np(signal))));
    }
}

void TestProcess::rubbishHarmsNobodyAndCostsNoMemory()
{
    const auto frame = [](const QString &name, const QByteArray &payload) {
        return BusFrame::makeData(1, DataRecord{"error", name, payload}.write());
    };
    const QByteArrayList rubbish = {QByteArray(5'000, '\xff'), QByteArray(5'000, '\0'),
        QByteArray::fromHex("02faf080 00"), QByteArray::fromHex("77359400 01"),
        frame(u"../x"_s, "x"), frame(u"x"_s, "x").left(20)};
    std::list<BusClient> clients;
    for (int i = 0; i < 300; ++i) {
        clients.emplace_back(whole.place.path(u"me"_s)).send(rubbish.at(i % rubbish.size()));
        if (i % 3 == 0)
            clients.back().abort();
    }
    BusClient sender(whole.place.path(u"me"_s));
    sender.record("error", u"good"_s, "1");
    QTRY_COMPARE(peer.bodies, QByteArrayList{"error1"});
    clients.clear();
    sender.send(BusFrame::makeName("sender") + frame(u"../x"_s, "x") + frame(u"good"_s, "2"));
    QTRY_COMPARE(peer.bodies.size(), 2);
    QVERIFY(whole.place.readFile(u"morvane.log"_s).contains("of 6 bytes from sender: the name"));
    QTRY_VERIFY(whole.spooled().isEmpty());
    QVERIFY(!QFile::exists(whole.place.path(u"x"_s)));

    const qint64 before = whole.residentMegabytes();
    peer.socket->write(QByteArray(60'000'000, 'x'));
    QTRY_COMPARE(peer.socket->bytesToWrite(), 0);
    QTRY_VERIFY(whole.residentMegabytes() < before + 20);
}

void TestProcess::quitSignalGivesStatusZero()
{
    QTRY_VERIFY(whole.isListening());
    admin->send(
        BusFrame::makeCommand("Input_Data_On", "", 1) + BusFrame::makeCommand("About", "", 9));
    QTRY_VERIFY(!admin->heard().filter(QRegularExpression(u" 9$"_s)).isEmpty());
    peer.socket->abort();
    QTRY_VERIFY(admin->heard().contains(u"202 InData Connection established.  -1"_s));
    QTRY_VERIFY(manager.heard.contains("STATUS=not connected to \"other\", link down, 0 waiting"));
    // The answer to the second command finds nobody, which does not count any more.
    admin->send(BusFrame::makeCommand("QuitSignal", "", 1) + BusFrame::makeCommand("About", "", 2));
    admin->sockets.first()->flush();
    admin->dropConnections();
    QTRY_COMPARE(whole.status(), 0);
    QTRY_COMPARE(manager.heard.last(), "STOPPING=1");
    QCOMPARE(manager.heard.count("READY=1"), 1);
    const QByteArray page = whole.place.readFile(u"status.prom"_s);
    QVERIFY2(page.contains("\nmorvane_up{module=\"me\"} 0\n")
            && page.contains("\nmorvane_records_accepted_total{module=\"me\"} 2\n")
            && page.contains("\nmorvane_records_acknowledged_total{module=\"me\"} 2\n"),
        page.constData());
}

void TestProcess::linkWithoutAcknowledgementsIsGivenUp()
{
    const QRegularExpression unacknowledged(u"unacknowledged_records\\{module=\"m\"\\} [1-9]"_s);
    QTRY_VERIFY(QString::fromUtf8(stuck.place.readFile(u"status.prom"_s)).contains(unacknowledged));
    QTRY_VERIFY2_WITH_TIMEOUT(silentPeer.linkStarts.size() > 1,
        "a link stays although the peer's kernel has acknowledged nothing for long",
        2 * longestWait);
    QVERIFY(started.elapsed() > 29'000 * (silentPeer.linkStarts.size() - 1));
}

QTEST_GUILESS_MAIN(TestProcess)
#include "tst_process.moc"
