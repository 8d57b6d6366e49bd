#include "ModuleBench.h"
#include "Packet.h"
#include "ServiceSocket.h"
#include "TcpPeer.h"
#include "UdpRelay.h"

#include <QElapsedTimer>
#include <QSettings>
#include <QThread>

#include <sys/stat.h>

class TestModule : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void aboutTellsTheSettings();
    void everySettingIsExplainedAndNoOtherKnown();
    void recordsBecomeSpoolFiles();
    void unsendableProtocolDropsButReports();
    void serviceManagerHearsOfTheModule();
    void monitorNotesChangesOfTheLinkAndTheRate();
    void statusPageShowsEveryFigure();
    void statusFileTellsWhatTheModuleDoes();
    void linkEventsAreReportedAndSecondStartDisturbsNothing();
    void hostThatIsNoAddressIsTriedOnceASecond();
    void startSwitchesUdpModeOnAndOff();
    void moduleWithoutSettingsEndsAndLeavesNoTemplate();
};

void TestModule::aboutTellsTheSettings()
{
    ModuleBench bench("LocalPort=70000\nPort=x\nHost=a,b\n");
    bench.command("About", "ignored", 42);
    // Numbers keep 16 bits, and a comma is text.
    QTRY_COMPARE(bench.admin.heard().value(1),
        u"202 About ----\nИнформация о сборке.\nВерсия модуля: 5.4.18:eb0bac411f09\n"
        "Версия Harnix: 1.0.0\n\n----\nИнформация о работе модуля.\nЛокальный UDP-порт: 4464\n"
        "Удаленный UDP-порт: 0\nУдаленный хост: a,b\nТаймаут передачи: 1000\n  42"_s);
}

void TestModule::everySettingIsExplainedAndNoOtherKnown()
{
    ModuleBench bench("Prot0col=UDP\nhost=x\n; mine\n[Other]\nFree=1\n");
    const QString said = u"Unknown key \"%1\" in group [Main] of %2: it has no effect"_s;
    const QString file = bench.place.path(u"m.ini"_s);
    QCOMPARE(bench.place.logged().filter(u"key"_s),
        QStringList({said.arg(u"Prot0col"_s, file), said.arg(u"host"_s, file)}));
    QVERIFY2(bench.place.readFile(file).contains("; mine\n"), "the file is not left alone");

    const QSettings *known = bench.module.prepareTemplateSettings();
    QString text = QString::fromUtf8(bench.place.readFile(QStringLiteral(EXAMPLE_SETTINGS)));
    text.replace(QRegularExpression(u"(^|\n);(\\w+=)"_s), u"\\1\\2"_s); // a key that is off
    QSettings example(bench.place.writeFile(u"example.ini"_s, text.toUtf8()), QSettings::IniFormat);
    QStringList explained = example.allKeys(), told;
    QVERIFY(explained.removeIf([](const QString &key) { return key.startsWith("Base/"_L1); }) > 0);
    QCOMPARE(explained, known->allKeys());

    const QString page = QString::fromUtf8(bench.place.readFile(QStringLiteral(SETTINGS_PAGE)));
    const QRegularExpression row(u"\n\\| `(\\w+)` \\| (?:`(.+?)`|none)"_s);
    for (const auto &match : row.globalMatch(page.section(u"## Group [Main]"_s, 1))) {
        told.append(u"Main/"_s + match.captured(1));
        QCOMPARE(match.captured(2), known->value(told.last()).toString());
    }
    told.sort();
    QCOMPARE(told, known->allKeys());
}

void TestModule::recordsBecomeSpoolFiles()
{
    ModuleBench bench("Protocol=UDP\n");
    bench.place.forgetLog();
    bench.command("Input_Data_On");
    for (const char *kind : {"tempdb", "error", "tempdb_t", "tempdb_", "Error", ""})
        bench.record(kind, u"имя "_s + QLatin1StringView(kind), QByteArray("\0AB", 3));
    bench.command("Input_Data_Off");
    bench.command("input_data_on");
    bench.record("tempdb_t", u"empty"_s, "");
    bench.module.MakeTmpFile(bench.spool + u"/by path"_s, "any");
    QCOMPARE(
        bench.spooled().join(u", "_s), u"by path, empty, имя error, имя tempdb, имя tempdb_t"_s);
    QCOMPARE(bench.place.readFile(u"spool/имя error"_s), QByteArray("error\0AB", 8));
    QCOMPARE(bench.place.readFile(u"spool/empty"_s), QByteArray("tempdb_t"));
    QCOMPARE(bench.place.readFile(u"spool/by path"_s), QByteArray("any"));
    QTRY_COMPARE(bench.reports().join(u", "_s),
        u"New data: имя tempdb, New data: имя error, New data: имя tempdb_t"_s);

    bench.record("error", u"../x"_s, "x");
    QVERIFY(QDir(bench.spool).removeRecursively());
    bench.record("error", u"f"_s, "x");
    QCOMPARE(bench.place.logged(),
        QStringList({u"Can not create temporary file"_s,
            u"Dropped the record \"../x\" of 6 bytes from a nameless module: the name cannot be a file's"_s,
            u"Can not open lock-file"_s,
            u"Dropped the record \"f\" of 6 bytes from a nameless module: No such file or directory"_s}));
}

void TestModule::unsendableProtocolDropsButReports()
{
    ModuleBench bench("Protocol=tcp\nStatusFile=FOLDER/s.prom\n");
    bench.module.Start();
    bench.command("Input_Data_On");
    bench.record("error", u"f"_s, "x");
    QTRY_COMPARE(bench.reports(), QStringList{u"New data: f"_s});
    QVERIFY(bench.spooled().isEmpty());
    bench.module.reportEnd();
    QVERIFY(bench.place.readFile(u"s.prom"_s).contains("{module=\"me\",reason=\"protocol\"} 1\n"));
}

void TestModule::serviceManagerHearsOfTheModule()
{
    const Workplace place;
    const QString path = place.path(u"notify"_s);
    ServiceSocket manager(path);
    qputenv("NOTIFY_SOCKET", path.toUtf8());
    qputenv("WATCHDOG_USEC", "300000");
    const auto cleanUp = qScopeGuard([] { qunsetenv("NOTIFY_SOCKET"); });

    TConnector bus(nullptr), lonely(nullptr);
    Monitor withoutBus(bus), withoutServers(lonely);
    const SpoolDirectory spool(place.makeFolder(u"spool"_s)), none(place.path(u"none"_s));
    place.writeFile(u"spool/f"_s, "x");
    QElapsedTimer time;
    time.start();
    withoutBus.start(spool, [](Status &) {});
    // More than the reports bring, one in 10 seconds, but at most one a second.
    QTRY_VERIFY(manager.signsOfLife.count("WATCHDOG=1") > 4);
    QVERIFY(time.elapsed() > 3'500);
    withoutBus.linkUp();

    lonely.SetServerName(u"me"_s);
    lonely.addOutServerName(u"not\nhere"_s);
    withoutServers.status.startedAt = QDateTime::currentSecsSinceEpoch() - 60;
    withoutServers.start(none, [](Status &) {});
    const QString status = u"STATUS=%1no transport, records are dropped, %2 waiting"_s;
    QTRY_COMPARE(manager.heard,
        QByteArrayList({status.arg(QString(), u"1"_s).toUtf8(), "READY=1",
            status.arg(u"waiting for \"not here\" on the bus, "_s, u"0"_s).toUtf8(), "READY=1"}));
}

void TestModule::monitorNotesChangesOfTheLinkAndTheRate()
{
    const Workplace place;
    pLog = new TLog(u"journal"_s);
    TConnector bus(nullptr);
    Monitor monitor(bus);
    Status &status = monitor.status;
    qint64 sent = 0;
    monitor.start(SpoolDirectory(place.path()),
        [&](Status &filled) { filled.udp = TransferCounters{.bytesSent = sent += 1'000'000}; });
    monitor.linkDown();
    QCOMPARE(status.lastError, QString()); // it was not up
    QVERIFY(std::exchange(status.linkChangedAt, 0) > 0);
    monitor.linkUp();
    QVERIFY(std::exchange(status.linkChangedAt, 0) > 0);
    monitor.linkDown();
    QVERIFY(status.linkChangedAt > 0);
    QCOMPARE(status.lastError, u"The link to  is down"_s);

    monitor.linkUp();
    QTest::qSleep(50); // before the time of the last rate
    QElapsedTimer time;
    time.start();
    monitor.stop();
    QVERIFY(!status.isLinkUp && !status.isRunning);
    QTest::qSleep(2);
    monitor.stop();
    QVERIFY(status.udpRate * double(time.elapsed() + 1) >= 1e9); // milliseconds
}

// Compares the end of the page, without its comments and what every line has.
static void compareEnd(const Status &status, const QString &expected)
{
    const QRegularExpression frame(uR"(# .*\n|morvane_|\{module=""\}|module="",|_total)"_s);
    const QString page = QString::fromUtf8(status.toPrometheus(1'000)).remove(frame).simplified();
    QCOMPARE(page.right(expected.simplified().size()), expected.simplified());
}

void TestModule::statusPageShowsEveryFigure()
{
    Status status;
    QVERIFY(!status.toPrometheus(1'000).contains("last_error"));
    QVERIFY(status.toPrometheus(1'000).contains("oldest_age_seconds{module=\"\"} 0\n"));
    status.startedAt = 12;
    status.lastError = u"\"\\\n"_s;
    status.lastErrorAt = 13;
    status.counters = {
        {1, 10}, {2, 20}, {3, 30}, {4, 40}, {5, 50}, {6, 60}, {7, 70}, {8, 80}, {9, 90}};
    status.waiting = {2, 12'345'678, 990};
    status.isLinkUp = true;
    status.linkChangedAt = 14;
    status.unacknowledged = {10, 100};
    status.acknowledgedNumber = 11;
    compareEnd(status, uR"(info{version="",protocol="",peer=""} 1 up 1 start_time_seconds 12
        last_error_time_seconds{error="\"\\\n"} 13 records_accepted 1 bytes_accepted 10
        records_refused{reason="kind"} 2 records_refused{reason="protocol"} 3
        records_refused{reason="lock"} 4 records_refused{reason="file"} 5
        bytes_refused{reason="kind"} 20 bytes_refused{reason="protocol"} 30
        bytes_refused{reason="lock"} 40 bytes_refused{reason="file"} 50 waiting_files 2
        waiting_bytes 12345678 waiting_oldest_age_seconds 10 link_up 1 link_change_time_seconds 14
        records_sent 6 bytes_sent 60 records_acknowledged 7 bytes_acknowledged 70 records_given_back
        8 bytes_given_back 80 records_repeated 9 bytes_repeated 90 unacknowledged_records 10
        unacknowledged_bytes 100 acknowledged_number 11)"_s);
    status.waiting = {1, 0, 1'001}; // the clock was set back
    status.udp = {21, 22, 23, 24, 25, 26, 27};
    status.udpRate = 0.5;
    compareEnd(status, uR"(waiting_files 1 waiting_bytes 0 waiting_oldest_age_seconds 0
        udp_bytes_per_second 0.5 udp_bytes_sent 23 udp_packets_sent 21 udp_packets_repeated 22
        udp_files_delivered 24 udp_files_refused 25 udp_files_received 26
        udp_last_answer_time_seconds 27)"_s);
}

void TestModule::statusFileTellsWhatTheModuleDoes()
{
    ModuleBench bench("Protocol=UDP\nLocalPort=0\nHost=\"a\\\\b\"\nStatusFile=FOLDER/x/s.prom\n");
    const auto failures = [&] { return bench.place.logged().filter(u"Can't write the status"_s); };
    bench.module.Start();
    QTRY_COMPARE(failures().size(), 1);
    bench.module.reportEnd();
    QFile page(bench.place.makeFolder(u"x"_s) + u"/s.prom"_s);
    const mode_t mask = ::umask(077);
    bench.module.reportEnd();
    ::umask(mask);
    QVERIFY(page.permissions() & QFile::ReadOther && page.open(QIODevice::ReadOnly));
    bench.record("error", u"f"_s, "12345");
    bench.record("Error", u"f"_s, "1");
    bench.record("error", u"../f"_s, "");
    QVERIFY(QDir(bench.spool).removeRecursively());
    bench.record("error", u"f"_s, "");
    bench.module.reportEnd();
    QCOMPARE(failures().size(), 1);
    QVERIFY(page.readAll().contains("accepted_total{module=\"me\"} 0\n")); // replaced as a whole
    const QByteArray text = bench.place.readFile(u"x/s.prom"_s);
    QVERIFY(QDir(bench.place.path(u"x"_s)).removeRecursively());
    bench.record("Error", u"f"_s, "1");
    bench.module.reportEnd();
    QCOMPARE(failures().size(), 2); // a new one
    for (const char *line : {"info{module=\"me\",version=\"5.4.18:eb0bac411f09\",protocol=\"UDP\","
                             "peer=\"a\\\\b port 7071\"} 1",
             "records_accepted_total{module=\"me\"} 1", "bytes_accepted_total{module=\"me\"} 10",
             "records_refused_total{module=\"me\",reason=\"kind\"} 1",
             "records_refused_total{module=\"me\",reason=\"file\"} 1",
             "records_refused_total{module=\"me\",reason=\"lock\"} 1", "up{module=\"me\"} 0"})
        QVERIFY2(text.contains(QByteArray("\nmorvane_") + line + '\n'), line);
}

void TestModule::linkEventsAreReportedAndSecondStartDisturbsNothing()
{
    auto peer = std::make_unique<TcpPeer>();
    const quint16 port = peer->serverPort();
    ModuleBench bench(tcpSettings(*peer)
        + "ReconnectionTimeout=60\nLiveMessageTimeout=1\n"
          "Acknowledgements=1\nStatusFile=FOLDER/s.prom\n");
    peer.reset();
    bench.command("Input_Data_On");
    bench.module.Start();
    QTRY_COMPARE(bench.reports().value(0), u"Socket error: 0"_s);
    peer = std::make_unique<TcpPeer>(port);
    bench.module.Reconnect();
    bench.module.Reconnect();
    QTRY_COMPARE(bench.reports().last(), u"Connection established."_s);
    bench.module.Reconnect();
    QTRY_VERIFY(peer->bodies.count("live") > 1);
    const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(&bench.module);
    QCOMPARE(timers.size(), 2); // replaced, not added
    peer.reset();
    QTRY_COMPARE(bench.reports().mid(2), QStringList{u"Socket error: 1"_s});
    bench.command("Input_Data_Off");
    bench.module.Debug("unheard");
    bench.command("Input_Data_On");
    bench.module.Debug("heard");
    QTRY_COMPARE(bench.reports().filter(u"heard"_s), QStringList{u"heard"_s});
    bench.module.reportEnd();
    const QByteArray page = bench.place.readFile(u"s.prom"_s);
    QVERIFY(page.contains("error=\"Socket error: ") && page.contains("acknowledged_number{"));
}

void TestModule::hostThatIsNoAddressIsTriedOnceASecond()
{
    QTest::failOnWarning(QRegularExpression(u"."_s));
    QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpProxy, u"127.0.0.1"_s, 1}); // not for it
    const auto cleanUp = qScopeGuard([] { QNetworkProxy::setApplicationProxy({}); });
    ModuleBench bench("Host=localhost\nReconnectionTimeout=0\nLiveMessageTimeout=0\n");
    bench.command("Input_Data_On");
    QElapsedTimer time;
    time.start();
    bench.module.Start();
    QTRY_VERIFY(bench.reports().size() > 1);
    QCOMPARE(bench.reports().first(2), QStringList(2, u"Socket error: 2"_s));
    QVERIFY(time.elapsed() > 900);
}

void TestModule::startSwitchesUdpModeOnAndOff()
{
    const quint16 port = freeUdpPort();
    TcpPeer peer;
    ModuleBench bench("Protocol=UDP\nOnlyPeer=1\nMaxReceivedBytes=8\nPort="
        + QByteArray::number(peer.serverPort()) + "\nLocalPort=" + QByteArray::number(port));
    bench.command("Input_Data_On");
    for (const char *line : {"Start Scanning", "Stop Scanning", "Start Scanning"}) {
        QTest::ignoreMessage(QtDebugMsg, line);
        bench.module.Reconnect();
        const auto threads = [&] { return bench.module.findChildren<QThread *>(); };
        QTRY_COMPARE(threads().size(), line[2] == 'a' ? 1 : 0);
        QVERIFY(threads().isEmpty() || threads().first()->isRunning());
    }
    const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(&bench.module);
    for (const auto &timer : timers) {
        QTimerEvent event(timer.timerId);
        QCoreApplication::sendEvent(&bench.module, &event);
    }
    QUdpSocket stranger, sender;
    stranger.setProxy(QNetworkProxy::NoProxy);
    QVERIFY(stranger.bind(QHostAddress(u"127.0.0.2"_s)) && sender.bind(QHostAddress::LocalHost));
    const auto reported = [&] { return bench.reports().join(u""_s); };
    QTRY_VERIFY(stranger.writeDatagram("x", QHostAddress::LocalHost, port) == 1
        && reported().contains(u"127.0.0.2 are dropped: it is not the peer"_s));
    for (const QByteArray &packet :
        {Packet::makeData({0, 0}, 9, 0, InformationRecord{1, "f"}.write()),
            Packet::makeData({0, 0}, 9, 1, qCompress("nine bytes").sliced(4))})
        sender.writeDatagram(packet, QHostAddress::LocalHost, port);
    QTRY_VERIFY(reported().contains(u"f is not written, it has more than 8 bytes"_s));
    QVERIFY(peer.linkStarts.isEmpty()); // nothing goes over TCP
}

void TestModule::moduleWithoutSettingsEndsAndLeavesNoTemplate()
{
    const Workplace place;
    QString settings;
    {
        Morvane module;
        QSettings *known = module.prepareTemplateSettings();
        known->setValue(u"x"_s, 1);
        known->sync();
        settings = known->fileName();
        QVERIFY(QFile::exists(settings));
        QMetaObject::invokeMethod(qApp, "aboutToQuit");
    }
    QVERIFY(!QFile::exists(settings));
}

QTEST_GUILESS_MAIN(TestModule)
#include "tst_module.moc"
