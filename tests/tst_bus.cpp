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

// A stream that arrives piece by piece. The last `late` bytes of a piece come while it is read.
class Pieces : public ByteSource
{
public:
    Pieces(const QByteArray &stream, qsizetype piece, qsizetype late)
        : bytes(stream)
        , pieceSize(piece)
        , lateSize(late)
    {
    }
    bool arrive()
    {
        const bool isMore = offset < bytes.size();
        arrived = std::min(offset + pieceSize, bytes.size());
        buffered = isMore ? std::max<qsizetype>(arrived - offset - lateSize, 1) : 0;
        return isMore;
    }
    qint64 bufferedBytes() const override { return buffered; }
    qint64 readBuffered(char *to, qint64 size) override
    {
        const qint64 count = copy(to, std::min<qint64>(size, buffered));
        buffered -= count;
        return count;
    }
    qint64 readDirect(char *to, qint64 size) override
    {
        return buffered > 0 ? 0 : copy(to, std::min<qint64>(size, arrived - offset));
    }

    int expectedSize = 0;
    FrameReader reader{*this, expectedSize};

private:
    qint64 copy(char *to, qint64 count)
    {
        std::copy_n(bytes.constData() + offset, count, to);
        offset += count;
        return count;
    }
    const QByteArray bytes;
    const qsizetype pieceSize, lateSize;
    qsizetype offset = 0, arrived = 0, buffered = 0;
};

// A plugin whose bus is driven pass by pass, and all that it hears.
class Bench : public TServerPlugin
{
public:
    Bench()
    {
        using Bytes = const QByteArray &;
        const auto hear = [this](const BusFrame &frame) { heard.append(shown(frame)); };
        connect(connector, &TConnector::NewData, this, [=](uchar version, Bytes data, auto *from) {
            hear({version, from->name, {}, data});
        });
        connect(connector, &TConnector::NewCommand, this, [=](Bytes name, Bytes data, int id) {
            hear({BusFrame::Command, name, {}, data, id});
        });
        connect(connector, &TConnector::NewBusMessage, this, [=](Bytes name, Bytes data, int id) {
            hear({BusFrame::BusMessage, name, {}, data, id});
        });
        connect(connector, &TConnector::NewAction, this,
            [=](Bytes name, Bytes message, Bytes data, int id) {
                hear({BusFrame::Action, name, message, data, id});
            });
    }

    void pass()
    {
        QTimerEvent event(1);
        QCoreApplication::sendEvent(connector, &event);
    }

    // Names the bus "me" and lets it do as many passes: three bring everything up.
    void start(const QByteArray &admin = {}, const QStringList &servers = {}, int passes = 3)
    {
        connector->adminConnection->name = admin;
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
    void framesOfAnySizeAreCutFromAnyPieces();
    void framesOfAnySizeArriveWhole();
    void lengthsAreBounded();
    void connectionMayEndWhileItIsRead();
    void dataGoesToWhomItIsFor();
    void watchModeMirrorsDataToAServerThatReads();
    void administrationServerThatNeverReadsCostsBoundedMemory();
    void peerThatIsSlowOrReadsAgainGetsEverything();
    void moduleThatCannotListenTriesAgain();
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
        const QString name = length >= 10 ? u"About"_s : QString();
        const QString message = length >= 18 ? u"text"_s : QString();
        const QString data = length >= 26 ? u"data"_s : QString();
        QCOMPARE(readBack(whole.left(length)), u"202 %1 %2 %3 0"_s.arg(name, message, data));
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
    const BusServer admin(u"admin"_s), a(u"a"_s), b(u"b"_s);
    bench.start("admin", {u"late"_s, u"a"_s, u"b"_s}, 0);
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
    QVERIFY(admin.sockets.isEmpty());
    bench.pass();
    QTRY_COMPARE(admin.heard(), greeting);
    QVERIFY(!QFile::exists(bench.place.path(u"me"_s)));
    bench.pass();
    const QString up = u"New Out Connnection"_s;
    QCOMPARE(bench.place.logged(),
        QStringList({u"Connnection Out Error: late QLocalSocket::connectToServer: Invalid name"_s,
            up, u"Connnection Disconnect: a"_s, up, up, up, up, u"Start server: me Ok!!!! "_s}));
}

void TestBus::lostConnectionsComeBack()
{
    Bench bench;
    BusServer admin(u"admin"_s);
    const BusServer a(u"a"_s);
    std::optional<BusServer> b(u"b"_s);
    bench.start("admin", {u"b"_s, u"a"_s});
    b.reset();
    QTRY_COMPARE(bench.place.logged(),
        QStringList({u"Connnection Out Error: b QLocalSocket: Remote closed"_s,
            u"Connnection Disconnect: b"_s}));
    admin.dropConnections();
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
    QTRY_COMPARE(bench.heard,
        QStringList({u"203 Q   0"_s, u"1 peer  AB 0"_s, u"201 peer  A 0"_s, u"202 In m d -1"_s,
            u"203 Hi   5"_s, u"204 if  d 258"_s}));
    client.abort();
    QTRY_COMPARE(bench.place.logged(),
        QStringList({u"New In Connection "_s, u"Connection in disconnection: peer"_s,
            u"Connection In Error: peer"_s}));
    QVERIFY(bench.bus().incoming().isEmpty());
}

void TestBus::framesOfAnySizeAreCutFromAnyPieces()
{
    QByteArray stream;
    for (const int size : {1, 16'378, 16'379, 16'380, 3, 100'001, 40'000, 16'375, 1})
        stream += dataFrame(uchar(size % 7), QByteArray(size, char('a' + size % 26)));
    for (const qsizetype piece : {1, 2, 1'000, 16'383, 16'384, 40'000, 1'000'000}) {
        Pieces pieces(stream, piece, piece / 2);
        QByteArray cut;
        for (BusFrame frame; pieces.arrive();) {
            while (pieces.reader.next(frame) == FrameReader::Result::Frame)
                cut += dataFrame(frame.kind, frame.data);
        }
        QVERIFY2(cut == stream && pieces.expectedSize == 0, qPrintable(QString::number(piece)));
    }
}

void TestBus::framesOfAnySizeArriveWhole()
{
    Bench bench;
    bench.start();
    QByteArray heard, sent, stream;
    connect(&bench.bus(), &TConnector::NewData, this, [&](uchar, auto data) { heard += data; });
    for (const int size : {1, 16'378, 16'379, 16'380, 3, 300'001, 40'000, 16'375, 900'000}) {
        const QByteArray data = QByteArray(size, char('a' + sent.size() % 26)) + '.';
        sent += data;
        stream += dataFrame(1, data);
    }
    // They still arrive while the first ones are read.
    std::thread sender([&] {
        BusClient client(u"me"_s);
        client.write(stream.repeated(20));
        while (client.waitForBytesWritten()) { }
    });
    QTRY_COMPARE(heard.size(), 20 * sent.size());
    sender.join();
    QVERIFY(heard == sent.repeated(20));
}

void TestBus::lengthsAreBounded()
{
    using Result = FrameReader::Result;
    const auto read = [](const char *length, int bodyBytes) {
        const QByteArray bytes = QByteArray::fromHex(length) + QByteArray(bodyBytes, '\1');
        Pieces pieces(bytes, bytes.size(), 0);
        BusFrame frame;
        pieces.arrive();
        return pieces.reader.next(frame);
    };
    QCOMPARE(read("02faf080", 1), Result::Incomplete);
    QCOMPARE(read("02faf081", 1), Result::TooLong);
    QCOMPARE(read("02faf081", 50'000'001), Result::Frame); // it was there already
    QCOMPARE(read("80000000", 0), Result::Frame);
}

void TestBus::connectionMayEndWhileItIsRead()
{
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
    bench.start({}, {u"gone"_s, u"other"_s});
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
    QTRY_COMPARE(
        other.heard(), QStringList({u"200 me   0"_s, u"1   x 0"_s, u"2   x 0"_s, u"3   x 0"_s}));
    const QByteArray toAll = dataFrame(2, text);
    QTRY_COMPARE(both.bytesAvailable(), 2 * toAll.size());
    QTRY_COMPARE(nameless.bytesAvailable(), toAll.size());
    QCOMPARE(nameless.readAll(), toAll);
}

void TestBus::watchModeMirrorsDataToAServerThatReads()
{
    Bench bench;
    const BusServer admin(u"admin"_s);
    bench.start("admin");
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
    QTRY_VERIFY(admin.received.endsWith(BusFrame::makeBusMessage("if", "x", 8)));
    const QStringList heard = admin.heard();
    QCOMPARE(heard.first(2), QStringList({u"200 me   0"_s, u"202 Watch_Arrow 7 seen -1"_s}));
    QCOMPARE(heard.size(), 8);
    QCOMPARE(heard.at(6), u"202 About text  7"_s);
    QVERIFY(bench.place.logged().filter(u"read"_s).isEmpty());
}

void TestBus::administrationServerThatNeverReadsCostsBoundedMemory()
{
    Bench bench;
    BusServer admin(u"admin"_s);
    admin.reading = false;
    bench.bus().setPatience(std::chrono::hours(1));
    bench.start("admin");
    QTRY_COMPARE(admin.sockets.size(), 1);

    // Senders wait for a moment, and no longer. The server's own commands never wait.
    BusClient client(u"me"_s);
    client.write(BusFrame::makeCommand("Watch_Arrow_On", "", 1));
    for (int i = 0; i < 30; ++i)
        client.write(dataFrame(1, QByteArray(1'000'000, 'x')));
    QTRY_VERIFY(bench.bus().adminConnection->bytesToWrite() > 16'000'000);
    admin.send(BusFrame::makeCommand("Stop", "", 1));
    QTRY_VERIFY(bench.heard.contains(u"203 Stop   1"_s));
    QVERIFY(bench.heard.size() < 25);
    bench.bus().setPatience(std::chrono::milliseconds(100));
    QTRY_COMPARE(bench.heard.size(), 31);
    QVERIFY(bench.bus().adminConnection->bytesToWrite() < 20'000'000);
    QCOMPARE(bench.place.logged().filter(u"does not read"_s).size(), 1);
    admin.dropConnections();
    QTRY_COMPARE(bench.place.logged().filter(u"bytes were dropped, because"_s).size(), 1);
    QByteArray name("About"), text("text"), none("");
    bench.pass();
    bench.SetAction(name, text, none, -1);
    QCOMPARE(bench.place.logged().filter(u"bytes were dropped, because"_s).size(), 1);
}

void TestBus::peerThatIsSlowOrReadsAgainGetsEverything()
{
    using namespace std::chrono_literals;
    const Workplace place;
    BusServer peer(u"peer"_s);
    peer.reading = false;
    TMyLocalSocket socket(nullptr);
    socket.connectToServer(u"peer"_s);
    QTRY_COMPARE(peer.sockets.size(), 1);
    const auto isStalledWhenIdleFor = [&](std::chrono::milliseconds patience) {
        for (const QDeadlineTimer busy(patience + 10ms); !busy.hasExpired();) { } // writes nothing
        socket.updateStalled(patience);
        return socket.stalled;
    };
    QVERIFY(!isStalledWhenIdleFor(50ms));
    socket.enqueue(QByteArray(20'000'000, 'x'));
    QVERIFY(!isStalledWhenIdleFor(50ms)); // the kernel takes some
    QVERIFY(isStalledWhenIdleFor(50ms));
    peer.sockets.first()->setReadBufferSize(0);
    QTRY_COMPARE(socket.bytesToWrite(), 0);
    QVERIFY(!isStalledWhenIdleFor(50ms));
    socket.enqueue(QByteArray(70'000'000, 'x'));
    socket.updateStalled(1h);
    QVERIFY(socket.stalled);
}

void TestBus::moduleThatCannotListenTriesAgain()
{
    Bench bench;
    bench.bus().SetServerName(u"later/me"_s);
    bench.pass();
    bench.place.writeFile(bench.place.makeFolder(u"later"_s) + u"/me"_s, ""); // left by a kill
    bench.pass();
    const QStringList log = bench.place.logged();
    QCOMPARE(log.last(), u"Start server: later/me Ok!!!! "_s);
    QVERIFY(log.size() == 2 && log.first().startsWith(u"Start Error: "_s));
}

void TestBus::baseSettingsReachTheConnector()
{
    // Administration server, own name, outgoing connections, warnings.
    const auto load = [](const QByteArray &lines) {
        Bench bench;
        const Workplace &place = bench.place;
        const QString wrong = place.writeFile(u"wrong.ini"_s, "[Base\n");
        for (const QString &warned : {wrong + u"\" cannot be read in full"_s,
                 u"absent.ini\" does not exist: defaults apply"_s})
            QTest::ignoreMessage(QtWarningMsg, "Settings file \"" + warned.toUtf8());
        bench.LoadSettings(wrong);
        bench.LoadSettings(u"absent.ini"_s);
        const QByteArray log = place.path(u"base.log"_s).toUtf8();
        bench.LoadSettings(place.writeFile(u"a.ini"_s, "[Base]\nLogName=" + log + '\n' + lines));
        return QStringList({QString::fromUtf8(bench.bus().adminConnection->name),
                               bench.bus().GetServerName(), bench.outgoingNames()})
                   .join(u'|')
            + u'|' + place.Folder::logged(u"base.log"_s).join(u'|');
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
