#include "Arguments.h"
#include "BusEnds.h"
#include "ModuleProcess.h"
#include "Record.h"
#include "ServiceSocket.h"
#include "TcpPeer.h"
#include "UdpRelay.h"

#include <QElapsedTimer>

#include <csignal>
#include <cstring>

namespace {

QByteArray recordFrame(const QString &name, const QByteArray &payload)
{
    return BusFrame::makeData(1, DataRecord{"error", name, payload}.write());
}

} // namespace

// The processes start together, so that their passes run side by side.
class TestProcess : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void startUpFollowsItsOrder();
    void argumentsNameTheSettingsFiles();
    void whatTheCommandLineMeans_data();
    void whatTheCommandLineMeans();
    void lossOfTheAdministrationServerGivesStatusFive();
    void filesCrossABadLinkBothWays();
    void serviceManagerHearsWhatIsWaitedFor();
    void rubbishHarmsNobody();
    void peerThatTalksCostsNoMemory();
    void quitSignalGivesStatusZero();
    void stopSignalsGiveStatusZeroAndKeepTheSpool();
    void linkWithoutAcknowledgementsIsGivenUp();

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
    UdpRelay toEast{1, 50}, toWest{2, 50};
    const QStringList names = {u"a file"_s, u"Zero to nine"_s, u"one"_s, u"two"_s};
    QByteArray noise = QByteArray(10'000, Qt::Uninitialized);
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
    parting.startWith(
        {u"-settings"_s, parting.writeSettings(u"m.ini"_s, "AdminServerName=admin\n", "")});

    silentPeer.stopReading();
    silentPeer.setKernelBuffer(65'536);
    const QString settings = stuck.writeSettings(u"m.ini"_s, "AdminServerName=\n",
        "LiveMessageTimeout=1\nPort=" + QByteArray::number(silentPeer.serverPort()) + '\n');
    for (int number = 0; number < 20; ++number)
        stuck.record("error", QString::number(number), QByteArray(500'000, 'x'));
    stuck.startWith({u"-settings"_s, settings});

    startUdp(east, toEast, toWest);
    startUdp(west, toWest, toEast);
    std::mt19937 random(3);
    std::generate(noise.begin(), noise.end(), [&] { return char(random()); });
    for (const QString &name : names) {
        east.record("error", name, name.toUtf8() + noise);
        west.record("error", name, name.toUtf8() + noise);
    }
}

void TestProcess::startUpFollowsItsOrder()
{
    QTRY_COMPARE(other->heard(), QStringList{u"200 me   0"_s});
    QVERIFY(started.elapsed() > 4'500);
    QTRY_VERIFY(whole.isListening());
    QVERIFY(started.elapsed() > 14'000);
    QCOMPARE(admin->heard(), QStringList{u"200 me   0"_s});
    QStringList entries = whole.place.logged(u"morvane.log"_s);
    const QString start = entries.takeAt(1);
    QVERIFY2(start.startsWith(u"This is morvane 5.4."_s) && start.endsWith(u"/morvane.ini"_s),
        qPrintable(start));
    QCOMPARE(entries,
        QStringList({u"Start Ok!"_s, u"New Out Connnection"_s, u"New Out Connnection"_s,
            u"Start server: me Ok!!!! "_s}));
}

void TestProcess::argumentsNameTheSettingsFiles()
{
    const QString warning = u"Warrning: No Connections "_s;
    const QStringList entries = orphan.place.logged(u"b.log"_s);
    QCOMPARE(entries.mid(0, 2), QStringList({warning, u"Start Ok!"_s}));
    QVERIFY2(entries.value(2).endsWith(u"/b.ini"_s), qPrintable(entries.value(2)));
    QCOMPARE(orphan.place.logged(u"a.log"_s),
        QStringList({u"Error load settings AdminServerName: NoName "_s, warning}));
}

void TestProcess::whatTheCommandLineMeans_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("remark"); // its beginning; empty: there is none
    const QString missing = u"\"-settings\" at the end has no effect"_s;
    const QStringList defaultFile{QString()};
    QTest::newRow("none") << QStringList() << defaultFile << QString();
    QTest::newRow("one file") << QStringList{u"-settings"_s, u"a"_s} << QStringList{u"a"_s}
                              << QString();
    QTest::newRow("two files") << QStringList{u"-settings"_s, u"a"_s, u"-settings"_s,
        u"-settings"_s} << QStringList{u"a"_s, u"-settings"_s}
                               << u"2 settings files"_s;
    QTest::newRow("no file") << QStringList{u"-settings"_s} << defaultFile << missing;
    QTest::newRow("a file and none")
        << QStringList{u"-settings"_s, u"a"_s, u"-settings"_s} << QStringList{u"a"_s} << missing;
    QTest::newRow("a wrong word") << QStringList{u"--settings"_s} << defaultFile
                                  << u"Argument \"--settings\" has no effect"_s;
}

void TestProcess::whatTheCommandLineMeans()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, remark);
    const Arguments read(QStringList{u"morvane"_s} + arguments);
    QTEST(read.settingsFiles, "files");
    QCOMPARE(read.remarks.size(), remark.isEmpty() ? 0 : 1);
    QVERIFY(read.remarks.value(0).startsWith(remark));
}

void TestProcess::lossOfTheAdministrationServerGivesStatusFive()
{
    QTRY_COMPARE(orphanAdmin->sockets.size(), 1);
    orphanAdmin.reset();
    QTRY_COMPARE(orphan.state(), QProcess::NotRunning);
    QCOMPARE(orphan.exitCode(), 5);
    QCOMPARE(orphan.place.logged(u"b.log"_s).last(), u"Stopped, exit status 5"_s);

    QTRY_COMPARE(partingAdmin->sockets.size(), 1);
    ::kill(pid_t(parting.processId()), SIGSTOP);
    partingAdmin.reset();
    ::kill(pid_t(parting.processId()), SIGTERM);
    ::kill(pid_t(parting.processId()), SIGCONT);
    QTRY_COMPARE(parting.state(), QProcess::NotRunning);
    QCOMPARE(parting.exitCode(), 0);
}

void TestProcess::filesCrossABadLinkBothWays()
{
    for (const ModuleProcess *process : {&east, &west}) {
        QTRY_COMPARE(process->spooled(), QStringList());
        for (const QString &name : names)
            QTRY_VERIFY(process->place.readFile(name) == "error" + name.toUtf8() + noise);
    }
}

void TestProcess::serviceManagerHearsWhatIsWaitedFor()
{
    QTRY_VERIFY(manager.heard().contains("READY=1"));
    QCOMPARE(manager.heard().last(5),
        QByteArrayList({"STATUS=waiting for \"other\" on the bus, link up, 0 waiting",
            "STATUS=waiting for the administration server admin, link up, 0 waiting",
            "STATUS=joining the bus, link up, 0 waiting", "STATUS=link up, 0 waiting", "READY=1"}));
    QTRY_VERIFY(manager.heard().size() > 4 && manager.signsOfLife > 1);
}

void TestProcess::rubbishHarmsNobody()
{
    QTRY_VERIFY(whole.isListening());
    const QByteArrayList rubbish = {QByteArray(5'000, '\xff'), QByteArray(5'000, '\0'),
        QByteArray::fromHex("02faf080 00"), QByteArray::fromHex("77359400 01"),
        recordFrame(u"../x"_s, "x"), recordFrame(u"x"_s, "x").left(20)};
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
    QTRY_COMPARE(peer.socket->bytesToWrite(), 0);
    QTRY_VERIFY(whole.residentMegabytes() < before + 20);
}

void TestProcess::quitSignalGivesStatusZero()
{
    QTRY_VERIFY(whole.isListening());
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
    QCOMPARE(manager.heard().last(), "STOPPING=1");
    const QByteArray page = whole.place.readFile(u"status.prom"_s);
    QVERIFY2(page.contains("\nmorvane_up{module=\"me\"} 0\n")
            && page.contains("\nmorvane_records_accepted_total{module=\"me\"} 2\n")
            && page.contains("\nmorvane_records_acknowledged_total{module=\"me\"} 2\n"),
        page.constData());
}

void TestProcess::stopSignalsGiveStatusZeroAndKeepTheSpool()
{
    toEast.target = toWest.target = 0; // nothing arrives any more
    for (const auto &[process, signal] : {std::pair(&west, SIGINT), std::pair(&east, SIGTERM)}) {
        QTRY_VERIFY(process->isListening());
        for (const QString &name : {u"stays"_s, u"stays too"_s})
            process->place.writeFile(u"spool/"_s + name, QByteArray(900'000, 'x'));
        ::kill(pid_t(process->processId()), SIGHUP); // opens the log anew, nothing else
        ::kill(pid_t(process->processId()), signal);
        QTRY_COMPARE(process->state(), QProcess::NotRunning);
        QCOMPARE(process->exitStatus(), QProcess::NormalExit);
        QCOMPARE(process->exitCode(), 0);
        QCOMPARE(process->spooled(), QStringList({u"stays"_s, u"stays too"_s}));
        QCOMPARE(process->place.logged(u"morvane.log"_s).last(),
            u"Stopped by SIG%1, exit status 0"_s.arg(QLatin1StringView(::sigabbrev_np(signal))));
    }
}

void TestProcess::linkWithoutAcknowledgementsIsGivenUp()
{
    QTRY_COMPARE_WITH_TIMEOUT(silentPeer.linkStarts.size(), 2, 2 * longestWait);
    QVERIFY(started.elapsed() > 29'000);
}

QTEST_GUILESS_MAIN(TestProcess)
#include "tst_process.moc"
