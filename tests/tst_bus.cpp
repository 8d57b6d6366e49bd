#include "BusEnds.h"
#include "TConnector.h"
#include "TServerPlugin.h"
#include "Workplace.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QTimerEvent>

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

// A stream that arrives piece by piece. A late half comes while the other half is read.
class Pieces : public ByteSource
{
public:
    void arrive(const QByteArray &piece, bool isHalfLate)
    {
        buffered += late + piece;
        late = buffered.last(isHalfLate ? piece.size() / 2 : 0);
        buffered.chop(late.size());
    }
    qint64 bufferedBytes() const override { return buffered.size(); }
    qint64 readBuffered(char *to, qint64 size) override { return take(buffered, to, size); }
    qint64 readDirect(char *to, qint64 size) override
    {
        return buffered.isEmpty() ? take(late, to, size) : 0;
    }

    int expectedSize = 0;
    FrameReader reader{*this, expectedSize};

private:
    static qint64 take(QByteArray &from, char *to, qint64 size)
    {
        const qsizetype count = std::min<qsizetype>(size, from.size());
        std::copy_n(from.constData(), count, to);
        from.remove(0, count);
        return count;
    }
    QByteArray buffered, late;
};

// A plugin whose bus is driven pass by pass, and all that it hears.
class Bench : public TServerPlugin
{
public:
    Bench()
    {
        using Bytes = const QByteArray &;
        const auto hear = [this](uchar kind) {
            return [=, this](Bytes name, Bytes data, int id) {
                heard.append(shown({kind, name, {}, data, id}));
            };
        };
        connect(connector, &TConnector::NewCommand, this, hear(BusFrame::Command));
        connect(connector, &TConnector::NewBusMessage, this, hear(BusFrame::BusMessage));
        connect(connector, &TConnector::NewData, this,
            [=](uchar version, Bytes data, auto *from) { hear(version)(from->name, data, 0); });
        connect(connector, &TConnector::NewAction, this,
            [this](Bytes name, Bytes message, Bytes data, int id) {
                heard.append(shown({BusFrame::Action, name, message, data, id}));
            });
    }

    void pass()
    {
        QTimerEvent event(1);
        QCoreApplication::sendEvent(connector, &event);
    }

    // Names the bus "me" and lets it do as many passes: three bring everything up.
    void start(const QStringList &servers = {}, int passes = 3)
    {
        connector->adminConnection->name = "admin";
        for (const QString &name : servers)
            connector->addOutServerName(name);
        connector->SetServerName(u"me"_s);
        QAbstractEventDispatcher::instance()->unregisterTimers(connector); // no pass of its own
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
    void lostConnectionsComeBack();
    void framesHaveTheseBytesAndArriveInAnyPieces();
    void framesOfAnySizeArriveWhole();
    void lengthsAreBounded();
    void dataGoesToWhomItIsFor();
    void watchModeMirrorsDataToAServerThatReads();
    void administrationServerThatNeverReadsCostsBoundedMemory();
    void peerThatIsSlowOrReadsAgainGetsEverything();
    void baseSettingsReachTheConnector();
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
    QCOMPARE(fields(QByteArray::fromHex("7FFFFFFF 6572726F72")), "  ");
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
    // The connection that has just come up is lost inside its own pass, while the list is walked.
    TMyLocalSocket *lost = bench.bus().outgoing().at(1);
    connect(lost, &QLocalSocket::connected, lost, &QLocalSocket::abort);
    bench.pass();
    const QStringList greeting = {u"200 me   0"_s};
    QTRY_COMPARE(b.heard(), greeting);
    QCOMPARE(bench.outgoingNames(), u"late,b,a"_s);
    const BusServer late(u"late"_s);
    bench.pass();
    QTRY_VERIFY(a.heard() == greeting && late.heard() == greeting);
    QVERIFY(bench.admin.sockets.isEmpty());
    bench.pass();
    QTRY_COMPARE(bench.admin.heard(), greeting);
    bench.pass(); // cannot listen: there is a folder of that name
    QVERIFY(QDir().rmdir(folder));
    bench.place.writeFile(u"me"_s, ""); // left by a kill
    bench.pass();
    QCOMPARE(bench.place.logged().join(u'|'),
        u"Connnection Out Error: late QLocalSocket::connectToServer: Invalid name|%1|Connnection "
        "Disconnect: a|%1|%1|%1|%1|Start Error: QLocalServer::listen: Address in use|"
        "Start server: me Ok!!!! "_s.arg(u"New Out Connnection"_s));
}

void TestBus::lostConnectionsComeBack()
{
    Bench bench;
    const BusServer a(u"a"_s);
    std::optional<BusServer> b(u"b"_s);
    bench.start({u"b"_s, u"a"_s});
    b.reset();
    QTRY_COMPARE(bench.place.logged().join(u'|'),
        u"Connnection Out Error: b QLocalSocket: Remote closed|Connnection Disconnect: b"_s);
    bench.admin.dropConnections();
    QTRY_COMPARE(bench.bus().absentAdmin(), u"admin"_s);
    bench.pass(); // after the start a missing server holds up nobody else
    QCOMPARE(bench.bus().absentAdmin(), QString());
    b.emplace(u"b"_s);
    bench.pass();
    QTRY_COMPARE(b->heard(), QStringList{u"200 me   0"_s});
    QCOMPARE(bench.outgoingNames(), u"a,b"_s);
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

void TestBus::framesOfAnySizeArriveWhole()
{
    QByteArray stream, heard;
    for (const int size : {1, 16'378, 16'379, 16'380, 3, 300'001, 40'000, 16'375, 900'000})
        stream += dataFrame(uchar(size % 7), QByteArray(size, char('a' + size % 26)));
    for (const qsizetype piece : {1, 2, 1'000, 16'383, 16'384, 40'000, 2'000'000}) {
        Pieces pieces;
        QByteArray cut;
        for (qsizetype at = 0; at < stream.size() + piece; at += piece) {
            pieces.arrive(stream.mid(at, piece), true);
            for (BusFrame frame; pieces.reader.next(frame) == FrameReader::Result::Frame;)
                cut += dataFrame(frame.kind, frame.data);
        }
        QVERIFY2(cut == stream && pieces.expectedSize == 0, qPrintable(QString::number(piece)));
    }
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
}

void TestBus::lengthsAreBounded()
{
    using Result = FrameReader::Result;
    const auto read = [](const char *length, int bodyBytes) {
        Pieces pieces;
        BusFrame frame;
        pieces.arrive(QByteArray::fromHex(length) + QByteArray(bodyBytes, '\1'), false);
        return pieces.reader.next(frame);
    };
    QCOMPARE(read("02faf080", 1), Result::Incomplete);
    QCOMPARE(read("02faf081", 1), Result::TooLong);
    QCOMPARE(read("02faf081", 50'000'001), Result::Frame); // it was there already
    QCOMPARE(read("80000000", 0), Result::Frame);

    Bench bench;
    bench.start();
    BusClient tooLong(u"me"_s), closed(u"me"_s);
    tooLong.send(QByteArray::fromHex("02faf081 01"));
    QTRY_COMPARE(tooLong.state(), QLocalSocket::UnconnectedState);
    QTRY_COMPARE(bench.bus().incoming().size(), 1);
    connect(
        &bench.bus(), &TConnector::NewData, this, [](auto, auto, auto *from) { from->abort(); });
    closed.send(dataFrame(1, "first") + dataFrame(1, "second"));
    QTRY_COMPARE(closed.state(), QLocalSocket::UnconnectedState);
    QCOMPARE(bench.heard.size(), 1);
    QVERIFY(bench.bus().incoming().isEmpty());
}

void TestBus::dataGoesToWhomItIsFor()
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
    Bench bench;
    bench.admin.reading = false;
    bench.bus().setPatience(1h);
    bench.start();
    QTRY_COMPARE(bench.admin.sockets.size(), 1);

    // Senders wait for a moment, and no longer. The server's own commands never wait.
    BusClient client(u"me"_s);
    client.write(BusFrame::makeCommand("Watch_Arrow_On", "", 1));
    for (int i = 0; i < 30; ++i)
        client.write(dataFrame(1, QByteArray(1'000'000, 'x')));
    QTRY_VERIFY(bench.bus().adminConnection->bytesToWrite() > 16'000'000);
    bench.admin.send(BusFrame::makeCommand("Stop", "", 1));
    QTRY_VERIFY(bench.heard.contains(u"203 Stop   1"_s));
    QVERIFY(bench.heard.size() < 25);
    bench.bus().setPatience(100ms);
    QTRY_COMPARE(bench.heard.size(), 31);
    QVERIFY(bench.bus().adminConnection->bytesToWrite() < 20'000'000);
    QCOMPARE(bench.place.logged().filter(u"does not read"_s).size(), 1);
    bench.admin.dropConnections();
    QTRY_COMPARE(bench.place.logged().filter(u"bytes were dropped, because"_s).size(), 1);
    bench.pass();
    bench.SendBusMessage("if", "x", 8);
    QCOMPARE(bench.place.logged().filter(u"bytes were dropped, because"_s).size(), 1);
}

void TestBus::peerThatIsSlowOrReadsAgainGetsEverything()
{
    const Workplace place;
    BusServer peer(u"peer"_s);
    peer.reading = false;
    TMyLocalSocket socket(nullptr);
    socket.connectToServer(u"peer"_s);
    QTRY_COMPARE(peer.sockets.size(), 1);
    const auto isStalledWhenIdle = [&] {
        for (const QDeadlineTimer busy(60ms); !busy.hasExpired();) { } // writes nothing
        socket.updateStalled(50ms);
        return socket.stalled;
    };
    QVERIFY(!isStalledWhenIdle());
    socket.enqueue(QByteArray(20'000'000, 'x'));
    QVERIFY(!isStalledWhenIdle()); // the kernel takes some
    QVERIFY(isStalledWhenIdle());
    peer.sockets.first()->setReadBufferSize(0);
    QTRY_COMPARE(socket.bytesToWrite(), 0);
    QVERIFY(!isStalledWhenIdle());
    socket.enqueue(QByteArray(70'000'000, 'x'));
    socket.updateStalled(1h);
    QVERIFY(socket.stalled);
}

void TestBus::baseSettingsReachTheConnector()
{
    // Administration server, own name, outgoing connections, warnings.
    const auto load = [](const QByteArray &lines) {
        Bench bench;
        const Workplace &place = bench.place;
        const QString wrong = place.writeFile(u"wrong.ini"_s, "[Base\n");
        const QString warning = u"Settings file \"%1\" "_s;
        for (const auto &[file, problem] : {std::pair(wrong, "cannot be read in full"),
                 {u"absent.ini"_s, "does not exist: defaults apply"}}) {
            QTest::ignoreMessage(QtWarningMsg, warning.arg(file).toUtf8() + problem);
            bench.LoadSettings(file);
        }
        const QByteArray log = place.path(u"base.log"_s).toUtf8();
        bench.LoadSettings(place.writeFile(u"a.ini"_s, "[Base]\nLogName=" + log + '\n' + lines));
        return QStringList(
            {QString::fromUtf8(bench.bus().adminConnection->name), bench.bus().GetServerName(),
                bench.outgoingNames(), place.logged(u"base.log"_s).join(u'|')})
            .join(u'|');
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

QTEST_GUILESS_MAIN(TestBus)
#include "tst_bus.moc"
