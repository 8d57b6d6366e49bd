#include "ModuleBench.h"
#include "TcpPeer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSettings>
#include <QTest>
#include <QThread>
#include <QTimerEvent>

using namespace Qt::StringLiterals;

class TestModule : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void numbersKeepSixteenBits_data();
    void numbersKeepSixteenBits();
    void aboutTextIsExact();
    void exampleSettingsHoldEveryKeyAndNoOther();

    void recordsBecomeSpoolFiles();
    void failuresAreLogged();
    void unsendableProtocolDropsButReports();

    void linkEventsAreReportedWhileTheWatchIsOn();
    void hostThatIsNoAddressIsTriedOnceASecond();
    void secondStartDisturbsNothing();
    void startSwitchesTheScanThreadOnAndOff();
};

// --- settings and commands ---

void TestModule::numbersKeepSixteenBits_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QString>("shown"); // local port, port, host, timeout
    QTest::newRow("defaults") << QByteArray() << u"9000 7071 127.0.0.1 1000"_s;
    QTest::newRow("low 16 bits") << QByteArray("Port=65536\nLocalPort=70000\nTimeout=-1\n")
                                 << u"4464 0 127.0.0.1 65535"_s;
    QTest::newRow("no numbers") << QByteArray("Port=x\nLocalPort=\nTimeout=99999999999\n")
                                << u"0 0 127.0.0.1 0"_s;
    QTest::newRow("host with a comma") << QByteArray("Host=a,b\n") << u"9000 7071 a,b 1000"_s;
}

void TestModule::numbersKeepSixteenBits()
{
    QFETCH(QByteArray, lines);
    ModuleBench bench(lines);
    bench.command("About");
    QTRY_COMPARE(bench.admin.frames().size(), 2);
    const QStringList about = QString::fromUtf8(bench.admin.frames().last().message).split(u'\n');
    QStringList values;
    for (const QString &line : about.sliced(7, 4))
        values.append(line.section(u": "_s, 1));
    QTEST(values.join(u' '), "shown");
}

void TestModule::aboutTextIsExact()
{
    ModuleBench bench("LocalPort=1\nPort=2\nHost=::1\nTimeout=3\n");
    bench.command("About", "ignored", 42);
    QTRY_COMPARE(bench.admin.frames().size(), 2);
    const BusFrame reply = bench.admin.frames().last();
    QCOMPARE(reply.kind, uchar(BusFrame::Action));
    QCOMPARE(reply.name, QByteArray("About"));
    QCOMPARE(reply.id, 42);
    QCOMPARE(QString::fromUtf8(reply.message),
        u"----\nИнформация о сборке.\nВерсия модуля: 5.4.18:eb0bac411f09\nВерсия Harnix: 1.0.0\n\n"
        "----\nИнформация о работе модуля.\nЛокальный UDP-порт: 1\nУдаленный UDP-порт: 2\n"
        "Удаленный хост: ::1\nТаймаут передачи: 3\n"_s);
    QVERIFY(bench.admin.received.endsWith(QByteArray::fromHex("00000000 01 ffff ffff 0000 0000 0000"
                                                              "0000002a")));
}

void TestModule::exampleSettingsHoldEveryKeyAndNoOther()
{
    ModuleBench bench("");
    QSettings example(QStringLiteral(EXAMPLE_SETTINGS), QSettings::IniFormat);
    QStringList explained = example.allKeys();
    QVERIFY(explained.removeIf([](const QString &key) { return key.startsWith("Base/"_L1); }) > 0);
    QCOMPARE(explained, bench.module.prepareTemplateSettings()->allKeys());
}

// --- records in ---

void TestModule::recordsBecomeSpoolFiles()
{
    ModuleBench bench("Protocol=UDP\n");
    bench.record("tempdb", u"unwatched"_s, "x");
    bench.command("Input_Data_On");
    for (const char *kind : {"tempdb", "error", "tempdb_t", "tempdb_", "Error", ""})
        bench.record(kind, u"имя "_s + QLatin1StringView(kind), QByteArray("\0AB", 3));
    bench.command("Input_Data_Off");
    bench.record("tempdb_t", u"empty"_s, "");
    QCOMPARE(bench.spooled(),
        QStringList(
            {u"empty"_s, u"unwatched"_s, u"имя error"_s, u"имя tempdb"_s, u"имя tempdb_t"_s}));
    QCOMPARE(bench.place.readFile(u"spool/имя error"_s), QByteArray("error\0AB", 8));
    QCOMPARE(bench.place.readFile(u"spool/empty"_s), QByteArray("tempdb_t"));
    QTRY_COMPARE(bench.reports(),
        QStringList(
            {u"New data: имя tempdb"_s, u"New data: имя error"_s, u"New data: имя tempdb_t"_s}));
}

void TestModule::failuresAreLogged()
{
    ModuleBench bench("Protocol=UDP\n");
    bench.place.forgetLog();
    bench.record("error", u""_s, "x");
    bench.record("error", u"../x"_s, "x");
    QCOMPARE(bench.place.logged(), QStringList(2, u"Can not create temporary file"_s));
    QVERIFY(bench.spooled().isEmpty() && !QFile::exists(bench.place.path(u"x"_s)));

    QVERIFY(QDir().rmdir(bench.spool));
    bench.record("error", u"f"_s, "x");
    QCOMPARE(bench.place.logged().last(), u"Can not open lock-file"_s);
}

void TestModule::unsendableProtocolDropsButReports()
{
    ModuleBench bench("Protocol=tcp\n");
    bench.module.Start();
    bench.command("Input_Data_On");
    bench.command("input_data_off");
    bench.record("error", u"f"_s, "x");
    QTRY_COMPARE(bench.reports(), QStringList{u"New data: f"_s});
    QVERIFY(bench.spooled().isEmpty());
}

// --- the TCP link ---

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
    bench.module.Debug("text of another \xD1\x84");
    QTRY_COMPARE(bench.reports().last(), u"text of another ф"_s);
    bench.command("Input_Data_Off");
    const qsizetype reported = bench.reports().size();
    bench.module.Debug("unheard");
    bench.command("Input_Data_On");
    bench.module.Debug("heard");
    QTRY_COMPARE(bench.reports().sliced(reported), QStringList{u"heard"_s});
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
        const QList<QThread *> threads = bench.module.findChildren<QThread *>();
        QCOMPARE(threads.size(), line[2] == 'a' ? 1 : 0);
        QVERIFY(threads.isEmpty() || threads.first()->isRunning());
    }
}

QTEST_GUILESS_MAIN(TestModule)
#include "tst_module.moc"
