#include "BusEnds.h"
#include "TServerPlugin.h"
#include "Workplace.h"

#include <QSettings>
#include <QSqlDatabase>

#include <thread>

namespace {

constexpr auto dataFrame = &BusFrame::makeData;

// Reads in both ways, into frames that hold something already.
QString readBack(const QByteArray &body)
{
    BusFrame copied{9, "old", "old", "old", 9}, moved = copied;
    copied.read(body);
    moved.takeOver(body);
    return shown(copied) == shown(moved) ? shown(copied) : u"the two ways differ"_s;
}

// A connection that reads nothing by itself, and its peer, which does not read either.
struct Line
{
    Line()
    {
        peer.reading = false;
        socket.connectToServer(u"peer"_s);
        QTRY_COMPARE(peer.sockets.size(), 1);
    }

    const Workplace place;
    BusServer peer{u"peer"_s};
    TMyLocalSocket socket{nullptr};
};

// A plugin whose bus is driven pass by pass, and all that it hears.
class Bench : public TServerPlugin
{
public:
    Bench()
    {
        using enum BusFrame::Kind;
        using Bytes = const QByteArray &;
        connect(connector, &TConnector::NewCommand, this, [this](Bytes name, Bytes data, int id) {
            hear({Command, name, {}, data, id});
        });
        connect(
            connector, &TConnector::NewBusMessage, this, [this](Bytes name, Bytes data, int id) {
                hear({BusMessage, name, {}, data, id});
            });
        connect(connector, &TConnector::NewData, this, [this](uchar kind, Bytes data, auto *from) {
            hear({kind, from->name, {}, data, 0});
        });
        connect(connector, &TConnector::NewAction, this,
            [this](Bytes name, Bytes message, Bytes data, int id) {
                hear({Action, name, message, data, id});
            });
    }

    void hear(const BusFrame &frame) { heard.append(shown(frame)); }
    void pass() { passOf(*connector); }

    // Names the bus "me" and lets it do as many passes: three bring everything up.
    void start(const QStringList &servers = {}, int passes = 3)
    {
        connector->adminConnection->name = "admin";
        for (const QString &name : servers)
            connector->addOutServerName(name);
        connector->SetServerName(u"me"_s);
        for (int i = 0; i < passes; ++i)
            pass();
        place.forgetLog();
    }

    [[nodiscard]] QString outgoingNames() const
    {
        QByteArrayList names;
        for (const TMyLocalSocket *socket : connector->outgoing())
            names.append(socket->name);
        return QString::fromUtf8(names.join(','));
    }

    TConnector &bus() { return *connector; }

    const Workplace place;
    BusServer admin{u"admin"_s};
    QStringList heard;
};

} // namespace

class TestBus : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void dataRecordsAreWrittenExactlyAndReadLeniently();
    void framesThatEndEarlyOrLieReadAsEmptyFields();
    void connectionsComeUpInOrder();
    void framesHaveTheseBytesAndArriveInAnyPieces();
    void framesOfAnySizeArriveWholeUntilTheConnectionIsClosed();
    void lengthsAreBounded();
    void dataGoesToWhomItIsForAndLostConnectionsComeBack();
    void watchModeMirrorsDataToAServerThatReads();
    void administrationServerThatNeverReadsCostsBoundedMemory();
    void droppedFramesAreCountedForEveryPeer();
    void peerThatIsSlowOrReadsAgainGetsEverything();
    void baseSettingsReachTheConnector();
    void databaseOpensOrSaysWhy();
};

void TestBus::dataRecordsAreWrittenExactlyAndReadLeniently()
{
    const QByteArray bytes =
        QByteArray::fromHex("00000006 74656D706462 00000004 00660031 00000002 4142");
    QCOMPARE(DataRecord({"tempdb", u"f1"_s, "AB"}).write().toHex(), bytes.toHex());
    const auto fields = [](const QByteArray &from) {
        const DataRecord record = DataRecord::read(from);
        return record.kind + ' ' + record.fileName.toUtf8() + ' ' + record.payload;
    };
    for (qsizetype length = 0; length < bytes.size(); ++length) {
        const QByteArray kind = length >= 10 ? "tempdb " : " ";
        QCOMPARE(fields(bytes.left(length)), kind + (length >= 18 ? "f1 " : " "));
    }
    QCOMPARE(fields(bytes), "tempdb f1 AB");
    QCOMPARE(fields(bytes + "surplus"), "tempdb f1 AB");
    QCOMPARE(fields(QByteArray::fromHex("7FFFFFFF 00000002 0041 00000001 41")), "  ");
    const char halfACharacter[] = "00000005 6572726F72 00000003 006600 00000001 41";
    QCOMPARE(fields(QByteArray::fromHex(halfACharacter)), "error  ");
}

void TestBus::framesThatEndEarlyOrLieReadAsEmptyFields()
{
    const QByteArray whole = BusFrame::makeAction("About", "text", "data", 77).sliced(4);
    for (qsizetype length = 1; length < whole.size(); ++length) {
        const QString fields = u"%1 %2 %3"_s.arg(length < 10 ? u""_s : u"About"_s,
            length < 18 ? u""_s : u"text"_s, length < 26 ? u""_s : u"data"_s);
        QCOMPARE(readBack(whole.left(length)), u"202 %1 0"_s.arg(fields));
    }
    QCOMPARE(readBack(whole + "surplus"), u"202 About text data 77"_s);
    const auto readHex = [](const char *digits) { return readBack(QByteArray::fromHex(digits)); };
    QCOMPARE(readHex(""), u"0    0"_s);
    QCOMPARE(readHex("07 00000002 4142 43"), u"7   AB 0"_s);
    QCOMPARE(readHex("07 00000003 4142"), u"7    0"_s);
    QCOMPARE(readHex("cb 7fffffff 4142 00000000 00000005"), u"203    0"_s);
    QCOMPARE(readHex("cb ffffffff 00000001 41 00000005"), u"203   A 5"_s);
}

void TestBus::connectionsComeUpInOrder()
{
    Bench bench;
    const BusServer a(u"a"_s), b(u"b"_s);
    const QString folder = bench.place.makeFolder(u"me"_s);
    bench.start({u"late"_s, u"a"_s, u"b"_s}, 0);
    bench.pass();
    const QStringList greeting = {u"200 me   0"_s};
    QTRY_VERIFY(a.heard() == greeting && b.heard() == greeting);
    const BusServer late(u"late"_s);
    // A connection is lost inside a pass, before the pass comes to it.
    const auto &sockets = bench.bus().outgoing();
    connect(sockets.at(0), &QLocalSocket::connected, sockets.at(1), &QLocalSocket::abort);
    bench.pass();
    QCOMPARE(bench.outgoingNames(), u"late,b,a"_s);
    bench.pass();
    QTRY_COMPARE(a.heard(), greeting + greeting);
    QVERIFY(bench.admin.sockets.isEmpty());
    bench.pass();
    QTRY_COMPARE(bench.admin.heard(), greeting);
    QVERIFY(b.heard() == greeting && late.heard() == greeting);
    bench.pass(); // cannot listen: there is a folder of that name
    QVERIFY(QDir().rmdir(folder));
    bench.place.writeFile(u"me"_s, ""); // left by a kill
    bench.admin.dropConnections();
    QTRY_COMPARE(bench.bus().absentAdmin(), u"admin"_s);
    bench.pass();
    QCOMPARE(bench.place.logged().join(u'|'),
        u"Connnection Out Error: late QLocalSocket::connectToServer: Invalid name|%1|%1|%1|"
        "Connnection Disconnect: a|%1|%1|Start Error: QLocalServer::listen: Address in use|"
        "Admin connection is closed. Stopping application.|%1|Start server: me Ok!!!! "_s.arg(
            u"New Out Connnection"_s));
}

void TestBus::framesHaveTheseBytesAndArriveInAnyPieces()
{
    const QByteArray made = BusFrame::makeName("peer") + dataFrame(1, "AB") + dataFrame(7, {})
        + dataFrame(7, "") + dataFrame(201, "A") + BusFrame::makeAction("In", "m", "d", -1)
        + BusFrame::makeCommand("Hi", "", 5) + BusFrame::makeBusMessage("if", "d", 258);
    const QByteArray golden = QByteArray::fromHex(
        "00000009 c8 00000004 70656572 00000007 01 00000002 4142 00000005 07 ffffffff"
        "00000005 07 00000000 00000006 c9 00000001 41"
        "00000020 ca 00000002 496e 00000001 6d 00000001 64 01 ffffffff 000000000000 ffffffff"
        "0000000f cb 00000002 4869 00000000 00000005"
        "00000010 cc 00000002 6966 00000001 64 00000102");
    QCOMPARE(made.toHex(), golden.toHex());

    Bench bench;
    bench.start();
    BusClient client(u"me"_s);
    for (const char byte :
        QByteArray::fromHex("00000000 fffffffb 00000006 cb 00000001 51") + golden) {
        client.send(QByteArray(1, byte));
        QCoreApplication::processEvents();
    }
    QTRY_COMPARE(bench.heard.join(u'|'),
        u"203 Q   0|1 peer  AB 0|201 peer  A 0|202 In m d -1|203 Hi   5|204 if  d 258"_s);
    client.abort();
    QTRY_COMPARE(bench.place.logged().join(u'|'),
        u"New In Connection |Connection in disconnection: peer|Connection In Error: peer"_s);
    QVERIFY(bench.bus().incoming().isEmpty());
}

void TestBus::framesOfAnySizeArriveWholeUntilTheConnectionIsClosed()
{
    QByteArray stream, heard;
    for (const int size : {1, 16'378, 16'379, 16'380, 3, 300'001, 40'000, 16'375, 900'000})
        stream += dataFrame(uchar(size % 7), QByteArray(size, char('a' + size % 26)));
    Bench bench;
    bench.start();
    connect(&bench.bus(), &TConnector::NewData, this,
        [&](uchar version, auto data) { heard += dataFrame(version, data); });
    std::jthread sender([&] { // they still arrive while the first ones are read
        BusClient client(u"me"_s);
        client.write(stream.repeated(20));
        while (client.waitForBytesWritten()) { }
    });
    QTRY_COMPARE(heard.size(), 20 * stream.size());
    QVERIFY(heard == stream.repeated(20));

    BusClient closed(u"me"_s);
    connect(&bench.bus(), &TConnector::NewData, this, [](auto, auto, auto *who) { who->abort(); });
    closed.send(dataFrame(1, "first") + dataFrame(1, "second"));
    QTRY_COMPARE(closed.state(), QLocalSocket::UnconnectedState);
    QVERIFY(heard.endsWith(dataFrame(1, "first")));
    QVERIFY(bench.bus().incoming().isEmpty());
}

void TestBus::lengthsAreBounded()
{
    // Whether there is a frame, and whether the connection stays.
    const auto take = [](const char *length, int bodyBytes) {
        Line line;
        BusFrame frame;
        line.peer.send(QByteArray::fromHex(length) + QByteArray(bodyBytes, '\1'));
        while (line.socket.bytesAvailable() < 4 + bodyBytes)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        const bool isFrame = line.socket.takeFrame(frame);
        return std::pair(isFrame, line.socket.isOpen());
    };
    QCOMPARE(take("02faf080", 1), std::pair(false, true));
    QCOMPARE(take("02faf081", 1), std::pair(false, false));
    QCOMPARE(take("02faf081", 50'000'001), std::pair(true, true)); // it was there already
    QCOMPARE(take("80000000", 0), std::pair(true, true));
}

void TestBus::dataGoesToWhomItIsForAndLostConnectionsComeBack()
{
    Bench bench;
    const BusServer other(u"other"_s);
    std::optional<BusServer> gone(u"gone"_s);
    bench.start({u"gone"_s, u"other"_s});
    BusClient both(u"me"_s), nameless(u"me"_s);
    both.send(BusFrame::makeName("other"));
    QTRY_COMPARE(bench.bus().incoming().size(), 2);
    QTRY_COMPARE(bench.bus().incoming().first()->name, QByteArray("other"));
    QVERIFY(bench.bus().incoming().first()->readBufferSize() > 0);
    gone.reset(); // nobody has heard of it when the first frame for all is sent

    QByteArray text("x");
    bench.bus().SetData(1, u"other"_s, text);
    bench.bus().SetDataAll(2, text);
    bench.bus().SetOutDataAll(3, text);
    QCOMPARE(bench.bus().outgoing().first()->bytesToWrite(), 0);
    QTRY_COMPARE(other.heard().join(u'|'), u"200 me   0|1   x 0|2   x 0|3   x 0"_s);
    const QByteArray toAll = dataFrame(2, text);
    QTRY_COMPARE(both.bytesAvailable(), 2 * toAll.size());
    QTRY_COMPARE(nameless.bytesAvailable(), toAll.size());
    QCOMPARE(nameless.readAll(), toAll);

    bench.admin.dropConnections();
    QTRY_COMPARE(bench.bus().absentAdmin(), u"admin"_s);
    bench.pass(); // after the start a missing server holds up nobody else
    QCOMPARE(bench.bus().absentAdmin(), QString());
    gone.emplace(u"gone"_s);
    bench.pass();
    QTRY_COMPARE(gone->heard(), QStringList{u"200 me   0"_s});
}

void TestBus::watchModeMirrorsDataToAServerThatReads()
{
    Bench bench;
    bench.start();
    BusClient client(u"me"_s);
    const QByteArray on = BusFrame::makeCommand("Watch_Arrow_On", "", 1);
    const QByteArray unseen = dataFrame(7, "unseen");
    client.send(BusFrame::makeCommand("watch_arrow_on", "", 1) + unseen + on + dataFrame(7, "seen")
        + dataFrame(7, "") + BusFrame::makeCommand("Watch_Arrow_Off", "", 1) + unseen + on);
    for (int i = 0; i < 4; ++i)
        client.write(dataFrame(uchar(i), QByteArray(20'000'000, char('a' + i))));
    QTRY_COMPARE(bench.heard.size(), 8);
    QByteArray name("About"), text("text"), none("");
    bench.SetAction(name, text, none, 7); // while the last mirror is on its way
    bench.SendBusMessage("if", "x", 8);
    QTRY_VERIFY(bench.admin.received.endsWith(BusFrame::makeBusMessage("if", "x", 8)));
    const QStringList heard = bench.admin.heard();
    QCOMPARE(heard.first(2), QStringList({u"200 me   0"_s, u"202 Watch_Arrow 7 seen -1"_s}));
    QCOMPARE(heard.size(), 8);
    QCOMPARE(heard.at(6), u"202 About text  7"_s);
    QVERIFY(bench.place.logged().filter(u"read"_s).isEmpty());
}

void TestBus::administrationServerThatNeverReadsCostsBoundedMemory()
{
    for (const bool isLastRead : {true, false}) {
        Bench bench;
        BusServer other(u"other"_s);
        bench.admin.reading = false;
        bench.bus().setPatience(1h);
        bench.start({u"other"_s});
        QTRY_VERIFY(bench.admin.sockets.size() == 1 && other.sockets.size() == 1);

        // Senders wait for a moment, and no longer. The server's own commands never wait.
        BusClient client(u"me"_s);
        client.write(BusFrame::makeCommand("Watch_Arrow_On", "", 1));
        for (int i = 0; i < 15; ++i) {
            client.write(dataFrame(1, QByteArray(1'000'000, 'x')));
            other.send(dataFrame(2, QByteArray(1'000'000, 'y')));
        }
        QTRY_VERIFY(bench.bus().adminConnection->bytesToWrite() > 16'000'000);
        bench.admin.send(BusFrame::makeCommand("Stop", "", 1));
        QTRY_VERIFY(bench.heard.contains(u"203 Stop   1"_s));
        QTRY_VERIFY(client.bytesToWrite() + other.sockets.first()->bytesToWrite() == 0);
        QVERIFY(bench.heard.size() < 25);
        if (isLastRead)
            bench.bus().readToEnd();
        else
            bench.bus().setPatience(100ms);
        QTRY_COMPARE(bench.heard.size(), 31);
        QVERIFY(isLastRead || bench.bus().adminConnection->bytesToWrite() < 20'000'000);
        bench.admin.dropConnections();
        QTRY_COMPARE(bench.place.logged().filter(u"bytes were dropped, because"_s).size(),
            isLastRead ? 0 : 1);
    }
}

void TestBus::droppedFramesAreCountedForEveryPeer()
{
    Bench bench;
    BusServer lost(u"lost"_s), again(u"again"_s);
    lost.reading = again.reading = false;
    bench.start({u"lost"_s, u"again"_s});
    BusClient client(u"me"_s);
    client.setReadBufferSize(1);
    QTRY_COMPARE(bench.bus().incoming().size(), 1);
    QByteArray large(70'000'000, 'x'), text("x");
    bench.bus().SetDataAll(1, large);
    bench.bus().SetDataAll(1, text);
    again.sockets.first()->setReadBufferSize(0);
    QTRY_COMPARE(bench.bus().outgoing().at(1)->bytesToWrite(), 0);
    bench.bus().SetOutDataAll(1, text);
    bench.bus().SetOutDataAll(1, text);
    lost.dropConnections();
    QTRY_COMPARE(bench.outgoingNames(), u"again,lost"_s);
    client.abort();
    const QString stalled = u"Connection %1 does not read: frames for it are dropped"_s;
    const QString drops = u"Connection %1: %2 of %3 bytes were dropped, because it did not read"_s;
    QTRY_COMPARE(bench.place.logged().filter(u" not read"_s),
        QStringList({stalled.arg(u"lost"_s), stalled.arg(u"again"_s), stalled.arg(QString()),
            drops.arg(u"again"_s, u"1 frames"_s, u"10"_s),
            drops.arg(u"lost"_s, u"3 frames"_s, u"30"_s),
            drops.arg(QString(), u"1 frames"_s, u"10"_s)}));
}

void TestBus::peerThatIsSlowOrReadsAgainGetsEverything()
{
    Line line;
    TMyLocalSocket &socket = line.socket;
    const auto isStalledWhenIdle = [&] {
        for (const QDeadlineTimer busy(60ms); !busy.hasExpired();) { } // writes nothing
        socket.updateStalled(50ms);
        return socket.stalled;
    };
    QVERIFY(!isStalledWhenIdle());
    socket.enqueue(QByteArray(20'000'000, 'x'));
    QVERIFY(!isStalledWhenIdle()); // the kernel takes some
    QVERIFY(isStalledWhenIdle());
    line.peer.sockets.first()->setReadBufferSize(14'000'000);
    QTRY_VERIFY(socket.bytesToWrite() < 8'000'000);
    QVERIFY(!isStalledWhenIdle());
}

void TestBus::baseSettingsReachTheConnector()
{
    // Administration server, own name, outgoing connections, warnings.
    const auto load = [](const QByteArray &lines) {
        Bench bench;
        const Workplace &place = bench.place;
        const QString wrong = place.writeFile(u"wrong.ini"_s, "[Base\n");
        for (const auto &[file, problem] :
            {std::pair(wrong, u"/wrong.ini\" cannot be read in full"_s),
                {u""_s, u"/tst_bus.ini\" does not exist: defaults apply"_s}}) {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(problem));
            bench.LoadSettings(file);
        }
        const QByteArray log = place.path(u"base.log"_s).toUtf8();
        bench.LoadSettings(place.writeFile(u"a.ini"_s, "[Base]\nLogName=" + log + '\n' + lines));
        return u"%1|%2|%3|%4"_s.arg(QString::fromUtf8(bench.bus().adminConnection->name),
            bench.bus().GetServerName(), bench.outgoingNames(),
            place.logged(u"base.log"_s).join(u'|'));
    };
    const QString warnings = u"Error load settings AdminServerName: NoName |"
                             "Error load settings ServerName: NoName |Warrning: No Connections "_s;
    QCOMPARE(load(""), u"No_AdminServer_name|||"_s);
    QCOMPARE(load("Log=2\n"), u"No_AdminServer_name|||"_s + warnings);
    QCOMPARE(load("Log=1\nAdminServerName=\nServerName=\nConnections=\n"),
        u"|||Warrning: No Connections "_s); // empty names are names
    // Each blank separates, a comma does not.
    QCOMPARE(load("Log=1\nAdminServerName=a,b\nServerName=me\nConnections=a  noname a\n"),
        u"a,b|me|a,,noname|"_s);
}

void TestBus::databaseOpensOrSaysWhy()
{
    Bench bench;
    const QString file = bench.place.path(u"data.sqlite"_s), other = file + u'2';
    const QByteArray lines = "[Good]\nHost=host\nPort=77\nUser=user\nPassword=secret\nName=";
    QSettings settings(
        bench.place.writeFile(u"db.ini"_s, lines + file.toUtf8() + "\n[Bad]\nDriver=QNOSUCH\n"),
        QSettings::IniFormat);
    const auto opened = [&](QString name, const QString &group) {
        if (!bench.openDataBaseBySettings(name, settings, group, other))
            return QSqlDatabase::contains(name) ? u"left"_s : u"none"_s;
        const QSqlDatabase database =
            name.isEmpty() ? QSqlDatabase::database() : QSqlDatabase::database(name);
        return u"%1 %2 %3 %4 %5"_s.arg(database.databaseName(), database.hostName(),
            database.userName(), database.password(), QString::number(database.port()));
    };
    if (QSqlDatabase::isDriverAvailable(u"QSQLITE"_s)) {
        QCOMPARE(opened(u"records"_s, u"Good"_s), file + u" host user secret 77"_s);
        QCOMPARE(opened(QString(), u"None"_s), other + u"    -1"_s);
    }
    QCOMPARE(opened(u"records"_s, u"Bad"_s), u"none"_s);
    QVERIFY(bench.place.logged().value(0).startsWith(u"Cannot open database %1: "_s.arg(other)));
}

QTEST_GUILESS_MAIN(TestBus)
#include "tst_bus.moc"
