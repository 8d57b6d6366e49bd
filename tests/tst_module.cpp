#include "ModuleBench.h"
#include "TcpPeer.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSettings>
#include <QThread>

class TestModule : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void aboutTellsTheSettings_data();
    void aboutTellsTheSettings();
    void exampleSettingsHoldEveryKeyAndNoOther();
    void settingsPageTellsEveryKeyAndItsDefault();
    void recordsBecomeSpoolFiles();
    void unsendableProtocolDropsButReports();
    void statusFileTellsWhatTheModuleDoes();
    void linkEventsAreReportedWhileTheWatchIsOn();
    void hostThatIsNoAddressIsTriedOnceASecond();
    void secondStartDisturbsNothing();
    void startSwitchesTheScanThreadOnAndOff();
};

void TestModule::aboutTellsTheSettings_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QString>("text");
    const QString text =
        u"----\nИнформация о сборке.\nВерсия модуля: 5.4.18:eb0bac411f09\nВерсия Harnix: 1.0.0\n\n"
        "----\nИнформация о работе модуля.\nЛокальный UDP-порт: %1\nУдаленный UDP-порт: %2\n"
        "Удаленный хост: %3\nТаймаут передачи: %4\n"_s;
    QTest::newRow("defaults") << QByteArray()
                              << text.arg(u"9000"_s, u"7071"_s, u"127.0.0.1"_s, u"1000"_s);
    QTest::newRow("numbers keep 16 bits, and a comma is text")
        << QByteArray("LocalPort=70000\nPort=x\nHost=a,b\nTimeout=-1\n")
        << text.arg(u"4464"_s, u"0"_s, u"a,b"_s, u"65535"_s);
}

void TestModule::aboutTellsTheSettings()
{
    QFETCH(QByteArray, lines);
    QFETCH(QString, text);
    ModuleBench bench(lines);
    bench.command("About", "ignored", 42);
    const QByteArray answer = BusFrame::makeAction("About", text.toUtf8(), "", 42);
    QTRY_COMPARE(bench.admin.frames().size(), 2);
    QCOMPARE(QString::fromUtf8(bench.admin.frames().last().message), text);
    QVERIFY(bench.admin.received.endsWith(answer));
}

void TestModule::exampleSettingsHoldEveryKeyAndNoOther()
{
    ModuleBench bench("");
    QFile file(QStringLiteral(EXAMPLE_SETTINGS));
    QVERIFY(file.open(QIODevice::ReadOnly));
    // A key that is off is there as a comment.
    const QString text = QString::fromUtf8(file.readAll())
                             .replace(QRegularExpression(u"(^|\n);(\\w+=)"_s), u"\\1\\2"_s);
    QSettings example(bench.place.writeFile(u"example.ini"_s, text.toUtf8()), QSettings::IniFormat);
    QStringList explained = example.allKeys();
    QVERIFY(explained.removeIf([](const QString &key) { return key.startsWith("Base/"_L1); }) > 0);
    QCOMPARE(explained, bench.module.prepareTemplateSettings()->allKeys());
}

void TestModule::settingsPageTellsEveryKeyAndItsDefault()
{
    ModuleBench bench("");
    const QSettings *known = bench.module.prepareTemplateSettings();
    QFile page(QStringLiteral(SETTINGS_PAGE));
    QVERIFY(page.open(QIODevice::ReadOnly));
    const QString table = QString::fromUtf8(page.readAll()).section(u"## Group [Main]"_s, 1);
    const QRegularExpression row(
        u"^\\| `(\\w+)` \\| (?:`(.+?)`|none)"_s, QRegularExpression::MultilineOption);
    QStringList told;
    for (const QRegularExpressionMatch &match : row.globalMatch(table)) {
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
    bench.record("tempdb_t", u"empty"_s, "");
    QCOMPARE(bench.spooled(),
        QStringList({u"empty"_s, u"имя error"_s, u"имя tempdb"_s, u"имя tempdb_t"_s}));
    QCOMPARE(bench.place.readFile(u"spool/имя error"_s), QByteArray("error\0AB", 8));
    QCOMPARE(bench.place.readFile(u"spool/empty"_s), QByteArray("tempdb_t"));
    QTRY_COMPARE(bench.reports(),
        QStringList(
            {u"New data: имя tempdb"_s, u"New data: имя error"_s, u"New data: имя tempdb_t"_s}));

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
    ModuleBench bench("Protocol=tcp\n");
    bench.module.Start();
    bench.command("Input_Data_On");
    bench.record("error", u"f"_s, "x");
    QTRY_COMPARE(bench.reports(), QStringList{u"New data: f"_s});
    QVERIFY(bench.spooled().isEmpty());
}

void TestModule::statusFileTellsWhatTheModuleDoes()
{
    ModuleBench bench("Protocol=UDP\nLocalPort=0\nHost=\"a\\\\b\"\nStatusFile=FOLDER/s.prom\n");
    QFile page(bench.place.path(u"s.prom"_s));
    bench.module.Start();
    QTRY_VERIFY(page.exists());
    QCOMPARE(page.permissions() & QFile::ReadOther, QFile::ReadOther);
    bench.record("error", u"f"_s, "12345");
    bench.record("Error", u"f"_s, "1");
    bench.record("error", u"../f"_s, "");
    bench.module.beforeEnd();
    const QByteArray text = bench.place.readFile(u"s.prom"_s);
    for (const char *line : {"info{module=\"me\",version=\"5.4.18:eb0bac411f09\",protocol=\"UDP\","
                             "peer=\"a\\\\b port 7071\"} 1",
             "records_accepted_total{module=\"me\"} 1", "bytes_accepted_total{module=\"me\"} 10",
             "records_refused_total{module=\"me\",reason=\"kind\"} 1",
             "records_refused_total{module=\"me\",reason=\"file\"} 1",
             "bytes_refused_total{module=\"me\",reason=\"file\"} 5",
             "udp_files_delivered_total{module=\"me\"} 0"})
        QVERIFY2(text.contains(QByteArray("\nmorvane_") + line + '\n'), line);
    QVERIFY(text.contains(",error=\"Dropped the record \\\"../f\\\" of 5 bytes"));
    QVERIFY(!text.contains("link_up"));
}

void TestModule::linkEventsAreReportedWhileTheWatchIsOn()
{
    auto peer = std::make_unique<TcpPeer>();
    const quint16 port = peer->serverPort();
    ModuleBench bench(tcpSettings(*peer));
    peer.reset();
    bench.command("Input_Data_On");
    bench.module.Start();
    QTRY_COMPARE(bench.reports().value(0), u"Socket error: 0"_s);
    peer = std::make_unique<TcpPeer>(port);
    QTRY_COMPARE(bench.reports().last(), u"Connection established."_s);
    peer.reset();
    QTRY_COMPARE(bench.reports().filter(u"Socket error: 1"_s).size(), 1);
    bench.command("Input_Data_Off");
    bench.module.Debug("unheard");
    bench.command("Input_Data_On");
    bench.module.Debug("heard");
    QTRY_COMPARE(bench.reports().filter(u"heard"_s), QStringList{u"heard"_s});
}

void TestModule::hostThatIsNoAddressIsTriedOnceASecond()
{
    ModuleBench bench("Host=localhost\nReconnectionTimeout=0\nLiveMessageTimeout=0\n");
    bench.command("Input_Data_On");
    QElapsedTimer time;
    time.start();
    bench.module.Start();
    QTRY_COMPARE(bench.reports(), QStringList(2, u"Socket error: 2"_s));
    QVERIFY(time.elapsed() > 900);
}

void TestModule::secondStartDisturbsNothing()
{
    TcpPeer peer;
    ModuleBench bench(tcpSettings(peer) + "LiveMessageTimeout=1\n");
    bench.command("Input_Data_On");
    bench.module.Start();
    bench.module.Reconnect();
    QTRY_COMPARE(bench.reports(), QStringList{u"Connection established."_s});
    bench.module.Reconnect();
    peer.bodies.clear();
    QTRY_VERIFY(!peer.bodies.isEmpty());
    QCOMPARE(peer.bodies, QByteArrayList{"live"}); // timers are replaced, not added
    QCOMPARE(bench.reports().size(), 1);
}

void TestModule::startSwitchesTheScanThreadOnAndOff()
{
    ModuleBench bench("Protocol=UDP\nLocalPort=0\n");
    for (const char *line : {"Start Scanning", "Stop Scanning", "Start Scanning"}) {
        QTest::ignoreMessage(QtDebugMsg, line);
        bench.module.Reconnect();
        const auto threads = [&] { return bench.module.findChildren<QThread *>(); };
        QTRY_COMPARE(threads().size(), line[2] == 'a' ? 1 : 0);
        QVERIFY(threads().isEmpty() || threads().first()->isRunning());
    }
}

QTEST_GUILESS_MAIN(TestModule)
#include "tst_module.moc"
