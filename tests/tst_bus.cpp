#include "BusEnds.h"
#include "TConnector.h"
#include "TServerPlugin.h"
#include "Workplace.h"

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTest>
#include <QTimerEvent>

#include <thread>

using namespace Qt::StringLiterals;

namespace {

QByteArray hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

QByteArray headerOnly(qint32 length)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(length, bytes.data());
    return bytes;
}

QString shown(const BusFrame &f)
{
    return u"%1|%2|%3|%4|%5"_s.arg(QString::number(f.kind), QString::fromUtf8(f.name),
        QString::fromUtf8(f.message), QString::fromUtf8(f.data), QString::number(f.id));
}

// Reads in both ways, into frames that hold something already.
BusFrame readFrame(const QByteArray &body)
{
    BusFrame copied{9, "old", "old", "old", 9}, moved = copied;
    copied.read(body);
    moved.takeOver(body);
    return shown(copied) == shown(moved) ? copied : BusFrame{0, "read in two ways", {}, {}, -1};
}

// A plugin whose bus is driven pass by pass, and all that it hears.
class Bench : public TServerPlugin
{
public:
    Bench()
    {
        connect(connector, &TConnector::NewData, this,
            [this](uchar version, QByteArray &data, TMyLocalSocket *from) {
                hear(u"data %1 %2 from %3"_s.arg(QString::number(version), QString::fromUtf8(data),
                    QString::fromUtf8(from->name)));
                if (abortOnData)
                    from->abort();
            });
        connect(connector, &TConnector::NewCommand, this,
            [this](QByteArray &name, QByteArray &data, int id) {
                hear(u"command %1 %2 %3"_s.arg(
                    QString::fromUtf8(name), QString::fromUtf8(data), QString::number(id)));
            });
        connect(connector, &TConnector::NewAction, this,
            [this](QByteArray &name, QByteArray &message, QByteArray &data, int id) {
                hear(u"action %1 %2 %3 %4"_s.arg(QString::fromUtf8(name),
                    QString::fromUtf8(message), QString::fromUtf8(data), QString::number(id)));
            });
        connect(connector, &TConnector::NewBusMessage, this,
            [this](const QByteArray &iface, const QByteArray &data, int id) {
                hear(u"bus message %1 %2 %3"_s.arg(
                    QString::fromUtf8(iface), QString::fromUtf8(data), QString::number(id)));
            });
    }

    void pass()
    {
        QTimerEvent event(1);
        QCoreApplication::sendEvent(connector, &event);
    }

    // Brings the bus up under the name "me".
    void start(const QString &admin = {})
    {
        connector->adminConnection->name = admin.toUtf8();
        connector->SetServerName(u"me"_s);
        pass();
        pass();
        place.forgetLog();
    }

    TConnector &bus() { return *connector; }

    const Workplace place;
    QStringList heard;
    qsizetype heardBytes = 0;
    bool abortOnData = false;

private:
    void hear(const QString &what)
    {
        heard.append(what.left(200));
        heardBytes += what.size();
    }
};

} // namespace

class TestBus : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void frameBytes_data();
    void frameBytes();
    void framesThatEndEarlyOrLieReadAsEmptyFields();

    void startUpKeepsItsOrder();
    void lostConnectionIsReplaced();
    void serverThatVanishesDuringThePassIsReplaced();
    void connectionsAreNamedAndLogged();

    void framesArriveInAnyPieces();
    void framesOfAnySizeArriveWhole();
    void lengthsAreBounded_data();
    void lengthsAreBounded();
    void slotMayCloseTheSocketItHearsFrom();
    void watchModeMirrorsData();

    void dataGoesToWhomItIsFor();
    void administrationServerThatNeverReadsCostsBoundedMemory();
    void baseSettingsReachTheConnector_data();
    void baseSettingsReachTheConnector();
};

// --- bytes ---

void TestBus::frameBytes_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("readBack");
    const auto row = [](const char *name, const QByteArray &frame, const char *bytes,
                         const QString &readBack) {
        QTest::newRow(name) << frame << hex(bytes) << readBack;
    };
    row("data", BusFrame::makeData(1, "AB"), "00000007 01 00000002 4142", u"1|||AB|0"_s);
    row("version 201", BusFrame::makeData(201, "A"), "00000006 c9 00000001 41", u"201|||A|0"_s);
    row("null data", BusFrame::makeData(7, {}), "00000005 07 ffffffff", u"7||||0"_s);
    row("empty data", BusFrame::makeData(7, ""), "00000005 07 00000000", u"7||||0"_s);
    row("name", BusFrame::makeName("ab"), "00000007 c8 00000002 6162", u"200|ab|||0"_s);
    row("command", BusFrame::makeCommand("Hi", "", 5),
        "0000000f cb 00000002 4869 00000000 00000005", u"203|Hi|||5"_s);
    row("action", BusFrame::makeAction("In", "m", "d", -1),
        "00000020 ca 00000002 496e 00000001 6d 00000001 64 01 ffffffff 000000000000 ffffffff",
        u"202|In|m|d|-1"_s);
    row("bus message", BusFrame::makeBusMessage("if", "d", 258),
        "00000010 cc 00000002 6966 00000001 64 00000102", u"204|if||d|258"_s);
}

void TestBus::frameBytes()
{
    QFETCH(QByteArray, frame);
    QFETCH(QByteArray, bytes);
    QCOMPARE(frame.toHex(' '), bytes.toHex(' '));
    QTEST(shown(readFrame(bytes.sliced(4))), "readBack");
}

void TestBus::framesThatEndEarlyOrLieReadAsEmptyFields()
{
    const QByteArray whole = BusFrame::makeAction("About", "text", "data", 77).sliced(4);
    for (qsizetype length = 0; length < whole.size(); ++length) {
        const BusFrame frame = readFrame(whole.left(length));
        QCOMPARE(frame.name, QByteArray(length >= 10 ? "About" : ""));
        QCOMPARE(frame.message, QByteArray(length >= 18 ? "text" : ""));
        QCOMPARE(frame.data, QByteArray(length >= 26 ? "data" : ""));
        QCOMPARE(frame.id, 0);
    }
    QCOMPARE(readFrame(whole + "surplus").id, 77);
    QCOMPARE(shown(readFrame({})), u"0||||0"_s);
    QCOMPARE(shown(readFrame(hex("cb 7fffffff 4142 00000000 00000005"))), u"203||||0"_s);
    QCOMPARE(shown(readFrame(hex("cb ffffffff 00000001 41 00000005"))), u"203|||A|5"_s);
}

// --- connections ---

void TestBus::startUpKeepsItsOrder()
{
    Bench bench;
    BusServer admin(u"admin"_s);
    bench.bus().adminConnection->name = "admin";
    bench.bus().addOutServerName(u"other"_s);
    bench.bus().addOutServerName(u"other"_s);
    bench.bus().SetServerName(u"me"_s);
    QCOMPARE(bench.bus().outgoing().size(), 1);

    QStringList log = {
        u"Connnection Out Error: other QLocalSocket::connectToServer: Invalid name"_s};
    const auto passLogs = [&](const QStringList &lines) {
        bench.pass();
        return bench.place.logged() == (log += lines);
    };
    bench.pass();
    QCOMPARE(bench.place.logged(), log);
    BusServer other(u"other"_s);
    QVERIFY(passLogs({u"New Out Connnection"_s}));
    QTRY_COMPARE(other.heard(), QStringList{u"200 me   0"_s});
    QVERIFY(admin.sockets.isEmpty());
    QVERIFY(passLogs({u"New Out Connnection"_s}));
    QTRY_COMPARE(admin.heard(), QStringList{u"200 me   0"_s});
    QVERIFY(passLogs({u"Start server: me Ok!!!! "_s}));
    QVERIFY(passLogs({}));
    QCOMPARE(other.sockets.size() + admin.sockets.size(), 2);
}

void TestBus::lostConnectionIsReplaced()
{
    Bench bench;
    auto other = std::make_unique<BusServer>(u"other"_s);
    BusServer second(u"second"_s);
    bench.bus().addOutServerName(u"other"_s);
    bench.bus().addOutServerName(u"second"_s);
    bench.start();
    QTRY_COMPARE(other->sockets.size(), 1);
    other.reset();
    QTRY_COMPARE(bench.place.logged(),
        QStringList({u"Connnection Out Error: other QLocalSocket: Remote closed"_s,
            u"Connnection Disconnect: other"_s}));
    QCOMPARE(bench.bus().outgoing().size(), 2);
    QCOMPARE(bench.bus().outgoing().last()->name, QByteArray("other"));
    BusServer back(u"other"_s);
    bench.pass();
    QTRY_COMPARE(back.heard(), QStringList{u"200 me   0"_s});
}

void TestBus::serverThatVanishesDuringThePassIsReplaced()
{
    Bench bench;
    QList<BusServer *> servers;
    for (const QString &name : {u"a"_s, u"b"_s, u"c"_s}) {
        servers.append(new BusServer(name));
        bench.bus().addOutServerName(name);
    }
    // The connection that has just come up is lost inside its own pass, while the list is walked.
    connect(bench.bus().outgoing().first(), &QLocalSocket::connected, this,
        [&] { bench.bus().outgoing().first()->abort(); });
    bench.bus().SetServerName(u"me"_s);
    bench.pass();
    QTRY_COMPARE(servers.at(2)->heard(), QStringList{u"200 me   0"_s});
    QStringList names;
    for (const TMyLocalSocket *socket : bench.bus().outgoing())
        names.append(QString::fromUtf8(socket->name));
    QCOMPARE(names, QStringList({u"b"_s, u"c"_s, u"a"_s}));
    qDeleteAll(servers);
}

void TestBus::connectionsAreNamedAndLogged()
{
    Bench bench;
    bench.start();
    {
        BusClient client(u"me"_s);
        client.send(BusFrame::makeName("node1"));
        QTRY_COMPARE(bench.bus().incoming().size(), 1);
        QTRY_COMPARE(bench.bus().incoming().first()->name, QByteArray("node1"));
    }
    QTRY_VERIFY(bench.bus().incoming().isEmpty());
    QCOMPARE(bench.place.logged(),
        QStringList({u"New In Connection "_s, u"Connection in disconnection: node1"_s,
            u"Connection In Error: node1"_s}));
}

// --- receiving ---

void TestBus::framesArriveInAnyPieces()
{
    Bench bench;
    bench.start();
    BusClient client(u"me"_s);
    const QByteArray frames = BusFrame::makeName("peer") + BusFrame::makeData(7, "one")
        + headerOnly(0) + headerOnly(-5) + BusFrame::makeData(9, "")
        + BusFrame::makeAction("act", "text", "data", 3) + BusFrame::makeBusMessage("if", "d", 4)
        + BusFrame::makeCommand("About", "x", 5) + hex("00000006 cb 00000001 51")
        + BusFrame::makeData(201, "two");
    const QStringList expected = {u"data 7 one from peer"_s, u"action act text data 3"_s,
        u"bus message if d 4"_s, u"command About x 5"_s, u"command Q  0"_s,
        u"data 201 two from peer"_s};

    client.send(frames);
    QTRY_COMPARE(bench.heard, expected);
    bench.heard.clear();
    for (const char byte : frames) {
        client.send(QByteArray(1, byte));
        QCoreApplication::processEvents();
    }
    QTRY_COMPARE(bench.heard, expected);
}

void TestBus::framesOfAnySizeArriveWhole()
{
    Bench bench;
    bench.start();
    BusClient client(u"me"_s);
    QByteArray heard, sent, stream;
    connect(&bench.bus(), &TConnector::NewData, this,
        [&](uchar, const QByteArray &data) { heard += data; });
    constexpr int sizes[] = {1, 16'378, 16'379, 16'380, 3, 300'001, 40'000, 16'375, 900'000};
    for (const int size : sizes) {
        const QByteArray data = QByteArray(size, char('a' + sent.size() % 26)) + '.';
        sent += data;
        stream += BusFrame::makeData(1, data);
    }
    for (qsizetype at = 0; at < stream.size(); at += 7'919) {
        client.send(stream.mid(at, 7'919));
        QCoreApplication::processEvents();
    }
    // Many in one piece, which still arrive while the first ones are read.
    std::thread sender([&] {
        BusClient fast(u"me"_s);
        fast.write(stream.repeated(20));
        while (fast.waitForBytesWritten())
            ;
    });
    QTRY_COMPARE(heard.size(), 21 * sent.size());
    sender.join();
    QVERIFY(heard == sent.repeated(21));
}

void TestBus::lengthsAreBounded_data()
{
    QTest::addColumn<qint32>("length");
    QTest::addColumn<bool>("closed");
    QTest::newRow("50 million are waited for") << 50'000'000 << false;
    QTest::newRow("one more is cut off") << 50'000'001 << true;
    QTest::newRow("2 thousand million are cut off") << 2'000'000'000 << true;
}

void TestBus::lengthsAreBounded()
{
    QFETCH(qint32, length);
    QFETCH(bool, closed);
    Bench bench;
    bench.start();
    BusClient client(u"me"_s);
    client.send(headerOnly(length) + "\1");
    if (closed) {
        QTRY_COMPARE(client.state(), QLocalSocket::UnconnectedState);
        QVERIFY(bench.bus().incoming().isEmpty());
        return;
    }
    const qint32 count = length - 5;
    client.write(headerOnly(count) + QByteArray(count, 'x') + BusFrame::makeData(2, "next"));
    QTRY_COMPARE_WITH_TIMEOUT(bench.heard.size(), 2, 20'000);
    QCOMPARE(bench.heardBytes, qsizetype(count) + 12 + 18);
}

void TestBus::slotMayCloseTheSocketItHearsFrom()
{
    Bench bench;
    bench.abortOnData = true;
    bench.start();
    BusClient client(u"me"_s);
    client.send(BusFrame::makeData(1, "first") + BusFrame::makeData(1, "second"));
    QTRY_COMPARE(client.state(), QLocalSocket::UnconnectedState);
    QCOMPARE(bench.heard.size(), 1);
    QVERIFY(bench.bus().incoming().isEmpty());
}

void TestBus::watchModeMirrorsData()
{
    Bench bench;
    BusServer admin(u"admin"_s);
    bench.start(u"admin"_s);
    bench.pass();
    BusClient client(u"me"_s);
    client.send(BusFrame::makeData(7, "unseen") + BusFrame::makeCommand("Watch_Arrow_On", "", 1)
        + BusFrame::makeData(7, "seen") + BusFrame::makeData(7, "")
        + BusFrame::makeCommand("Watch_Arrow_Off", "", 1) + BusFrame::makeData(7, "unseen"));
    QTRY_COMPARE(bench.heard.size(), 3);
    QTRY_COMPARE(admin.heard(), QStringList({u"200 me   0"_s, u"202 Watch_Arrow 7 seen -1"_s}));
}

// --- sending ---

void TestBus::dataGoesToWhomItIsFor()
{
    Bench bench;
    BusServer other(u"other"_s);
    bench.bus().addOutServerName(u"other"_s);
    bench.bus().addOutServerName(u"gone"_s);
    auto gone = std::make_unique<BusServer>(u"gone"_s);
    bench.start();
    BusClient both(u"me"_s);
    both.send(BusFrame::makeName("other"));
    BusClient nameless(u"me"_s);
    QTRY_COMPARE(bench.bus().incoming().size(), 2);
    QTRY_COMPARE(bench.bus().incoming().first()->name, QByteArray("other"));
    gone.reset();

    QByteArray text("x");
    bench.bus().SetData(1, u"other"_s, text);
    bench.bus().SetData(1, u"nobody"_s, text);
    bench.bus().SetDataAll(2, text);
    bench.bus().SetOutDataAll(3, text);
    const QByteArray toAll = BusFrame::makeData(2, text);
    QTRY_COMPARE(
        other.heard(), QStringList({u"200 me   0"_s, u"1   x 0"_s, u"2   x 0"_s, u"3   x 0"_s}));
    QTRY_COMPARE(both.bytesAvailable(), 2 * toAll.size());
    QTRY_COMPARE(nameless.bytesAvailable(), toAll.size());
    QCOMPARE(nameless.readAll(), toAll);
}

void TestBus::administrationServerThatNeverReadsCostsBoundedMemory()
{
    Bench bench;
    BusServer admin(u"admin"_s);
    admin.reading = false;
    bench.start(u"admin"_s);
    QTRY_COMPARE(admin.sockets.size(), 1);

    QByteArray name("InData"), text(1'000'000, 'x'), none("");
    for (int i = 0; i < 60; ++i)
        bench.SetAction(name, text, none, -1);
    QVERIFY(bench.bus().adminConnection->bytesToWrite() < 20'000'000);
    QCOMPARE(bench.place.logged().filter(u"does not read"_s).size(), 1);
}

void TestBus::baseSettingsReachTheConnector_data()
{
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QString>("names"); // administration server, own, outgoing connections
    QTest::addColumn<int>("warningCount");
    QTest::newRow("nothing given") << QByteArray() << u"No_AdminServer_name||"_s << 3;
    QTest::newRow("explicit NoName is as good as nothing")
        << QByteArray("AdminServerName=NoName\nServerName=NoName\nConnections=NoName\n")
        << u"No_AdminServer_name||"_s << 3;
    QTest::newRow("empty names are names")
        << QByteArray("AdminServerName=\nServerName=\nConnections=\n") << u"||"_s << 1;
    QTest::newRow("each blank separates")
        << QByteArray("AdminServerName=a\nServerName=me\nConnections=a  noname a\n")
        << u"a|me|a,,noname"_s << 0;
    QTest::newRow("a comma is part of the text")
        << QByteArray("AdminServerName=a,b\nServerName=me\nConnections=c\n") << u"a,b|me|c"_s << 0;
}

void TestBus::baseSettingsReachTheConnector()
{
    QFETCH(QByteArray, lines);
    Bench bench;
    const QString log = bench.place.path(u"base.log"_s);
    bench.LoadSettings(
        bench.place.writeFile(u"a.ini"_s, "[Base]\nLog=2\nLogName=" + log.toUtf8() + '\n' + lines));
    QStringList connections;
    for (const TMyLocalSocket *socket : bench.bus().outgoing())
        connections.append(QString::fromUtf8(socket->name));
    const QString names = QString::fromUtf8(bench.bus().adminConnection->name) + u'|'
        + bench.bus().GetServerName() + u'|' + connections.join(u',');
    QTEST(names, "names");
    const QStringList warnings = {u"Error load settings AdminServerName: NoName "_s,
        u"Error load settings ServerName: NoName "_s, u"Warrning: No Connections "_s};
    QFETCH(int, warningCount);
    QCOMPARE(bench.place.Folder::logged(u"base.log"_s), warnings.last(warningCount));
}

QTEST_GUILESS_MAIN(TestBus)
#include "tst_bus.moc"
