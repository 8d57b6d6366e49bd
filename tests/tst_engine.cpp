#include "kit/Channel.h"

#include <QDirIterator>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <csignal>
#include <sys/resource.h>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

constexpr Packet::Stamp stamp = {0, 0};

qint64 peakMemory() // bytes
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return qint64(usage.ru_maxrss) * 1024;
}

Bytes information(char id, quint16 count, const Bytes &name)
{
    return Packet::makeData(stamp, id, 0, InformationRecord{count, name}.write());
}

Bytes acknowledgement(char id, std::initializer_list<quint16> numbers)
{
    return Packet::makeAcknowledgement(stamp, id, std::span(numbers.begin(), numbers.size()), 1);
}

// Hands over a file of one byte or, with another stream, of whatever that inflates to.
void receiveFile(Side &side, const Bytes &name, Bytes stream = compressed("a"))
{
    const quint16 count = quint16((stream.size() + 249) / 250);
    side.receive(information(9, count, name));
    for (quint16 number = 1; number <= count; ++number)
        side.receive(Packet::makeData(stamp, 9, number, stream.mid(250 * (number - 1), 250)));
}

QStringList filesBelow(const QString &directory)
{
    QStringList files;
    QDirIterator all(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (all.hasNext())
        files.append(all.next().sliced(directory.size()));
    return files;
}

} // namespace

class tst_engine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { folder.emplace(); }

    void filesArriveWhateverTheChannelDoes_data();
    void filesArriveWhateverTheChannelDoes();
    void ticksGiveTheseBytes();
    void waitsForQuietTicks();
    void idsRunTo127AndGoOnWith0();
    void choosesAsAWalkOverTheTableWould();
    void answersWithWhatItHoldsAsOftenAsAsked();
    void gathersAfreshWithEveryInformationRecord();
    void stopEndsBothDirections();
    void survivesMutatedDatagrams();
    void writesPlainNamesOnly_data();
    void writesPlainNamesOnly();
    void refusesWhatItCannotSend_data();
    void refusesWhatItCannotSend();
    void keepsWhatCorruptStreamsContain();
    void keepsTheOldFileUntilTheNewOneIsWhole();
    void memoryDoesNotFollowTheInflatedSize();
    void filesMayBeOpenedFromAnotherThread();

private:
    QString path(const QString &name) const { return folder->filePath(name); }
    QString makeFile(const QString &name, const Bytes &content) const
    {
        return writeFile(path(name), content) ? path(name) : u"cannot write"_s;
    }
    std::optional<QTemporaryDir> folder;
};

void tst_engine::filesArriveWhateverTheChannelDoes_data()
{
    QTest::addColumn<double>("loss");
    QTest::addColumn<bool>("isTidy");
    for (const int percent : {0, 10, 33, 50}) {
        QTest::addRow("%d %% lost", percent) << percent / 100.0 << true;
        QTest::addRow("%d %% lost, others doubled and late", percent) << percent / 100.0 << false;
    }
}

void tst_engine::filesArriveWhateverTheChannelDoes()
{
    QFETCH(double, loss);
    QFETCH(bool, isTidy);
    Channel channel;
    channel.loss = loss;
    channel.doubled = isTidy ? 0 : 0.3;
    channel.maxDelay = isTidy ? 0 : 7;
    const Bytes content = noise(60'000, 1);
    const Bytes other = noise(50'001, 2);
    channel.left.engine.SendPath(path(u"left-"_s));
    channel.right.engine.SendPath(path(u"right-"_s));
    channel.left.engine.OpenFile(makeFile(u"out.dat"_s, content));
    channel.right.engine.OpenFile(makeFile(u"back.dat"_s, other));
    QVERIFY(channel.run(1, 1));

    QVERIFY(contentOf(path(u"right-out.dat"_s)) == content);
    QVERIFY(contentOf(path(u"left-back.dat"_s)) == other);
    QVERIFY(channel.right.received.contains(u"out.dat"_s) && channel.left.sended == 1);
    const int packets = (int(compressed(content).size()) + 249) / 250;
    if (loss == 0 && isTidy) // announced in three ticks, then four packets in every five
        QCOMPARE(channel.ticks, 3 + (packets + 3) / 4 * 5);
}

void tst_engine::ticksGiveTheseBytes()
{
    Side side;
    side.engine.OpenFile(makeFile(u"a.dat"_s, "a"));
    const auto ticks = [&](int count) {
        QStringList hex;
        for (int i = 0; i < count; ++i)
            side.tick();
        for (const Bytes &packet : side.take())
            hex.append(QString::fromLatin1(packet.toHex()));
        return hex;
    };
    QCOMPARE(ticks(3),
        QStringList({u"a4d500000007000108b12900000001612e646174012c"_s,
            u"a4d501000007000108b12900000001612e646174012d"_s,
            u"a4d50200000d000102b229000200000000ff68"_s,
            u"a4d50200000d000102b229000200000000ff68"_s}));
    side.receive(acknowledgement(41, {0, 0}));
    QCOMPARE(ticks(5),
        QStringList({u"a4d50300000900010ab129000178da4b04000062006200d0"_s,
            u"a4d50400000900010ab129000178da4b04000062006200d1"_s,
            u"a4d50500000900010ab129000178da4b04000062006200d2"_s,
            u"a4d50600000900010ab129000178da4b04000062006200d3"_s,
            u"a4d50700000d000102b22900040001000100010001ff73"_s,
            u"a4d50700000d000102b22900040001000100010001ff73"_s}));
    for (const char id : {'(', ')', ')'}) // 40, 41, 41
        side.receive(acknowledgement(id, {7, 1, 1}));
    QCOMPARE(side.sended, 1);

    char tag[] = {'T', 'A', 'G', 'G', 'E'};
    side.engine.SendInfo(tag, u"x"_s + QString(200, QChar(u'é'))); // 401 bytes
    const Bytes message = side.take().at(0);
    QCOMPARE(message.size(), 18 + 247);
    QVERIFY(message.startsWith(Bytes::fromHex("a4d5080000010801feb45441474745f7")));
}

// Two ticks of silence after a data packet or a status request, none after an acknowledgement.
void tst_engine::waitsForQuietTicks()
{
    Side side(3);
    side.engine.OpenFile(makeFile(u"a.dat"_s, "a"));
    const auto emitsInTicks = [&](int count) {
        for (int i = 0; i < count; ++i)
            side.tick();
        return !side.take().isEmpty();
    };
    QVERIFY(emitsInTicks(1));
    for (const Bytes &packet : {information(5, 1, "x"), Packet::makeStatusRequest(stamp, 9, {})}) {
        side.receive(packet);
        QVERIFY(!emitsInTicks(2));
        QVERIFY(emitsInTicks(1));
    }
    side.receive(acknowledgement(1, {5}));
    QVERIFY(emitsInTicks(1));
}

void tst_engine::idsRunTo127AndGoOnWith0()
{
    Channel channel;
    TFileTransfer &engine = channel.left.engine;
    const QString file = makeFile(u"a.dat"_s, ""); // announced only, never written
    QList<int> ids;
    connect(&engine, &TFileTransfer::SendData, &engine, [&](const Bytes &packet) {
        if (ids.isEmpty() || ids.last() != packet.at(10))
            ids.append(packet.at(10));
    });
    connect(&engine, &TFileTransfer::FileSended, &engine, [&] { engine.OpenFile(file); });
    engine.OpenFile(file);
    QVERIFY(channel.run(89, 0));
    QList<int> expected;
    for (int id = 41; id <= 127; ++id)
        expected.append(id);
    QCOMPARE(ids, expected << 0 << 1);
    QVERIFY(channel.right.received.isEmpty());
}

// Acknowledgements come seldom enough for the counts to wrap.
void tst_engine::choosesAsAWalkOverTheTableWould()
{
    for (quint32 seed = 1; seed <= 60; ++seed) {
        QRandomGenerator random(seed);
        Side side;
        const int packets = 1 + random.bounded(20);
        side.engine.OpenFile(makeFile(u"f"_s, noise(250 * packets - 100, seed)));
        side.receive(acknowledgement(41, {0}));
        std::map<int, qint8> counts;
        for (int number = 1; number <= packets; ++number)
            counts[number] = 0;
        const int oneIn = 1 << random.bounded(3, 10); // sends from acknowledgement to another
        for (int sends = 0; sends < 8'000 && !counts.empty();) {
            side.tick();
            const auto packet = Packet::read(side.packets.value(0));
            if (packet && packet->kind == Packet::Data) {
                auto chosen = counts.begin();
                for (auto it = counts.begin(); it != counts.end(); ++it) {
                    if (it->second < counts.begin()->second) {
                        chosen = it;
                        break;
                    }
                }
                QCOMPARE(packet->number, chosen->first);
                chosen->second = qint8(chosen->second + 1);
                ++sends;
            }
            side.take();
            if (random.bounded(oneIn) == 0) {
                const auto gone = std::next(counts.begin(), random.bounded(int(counts.size())));
                side.receive(acknowledgement(41, {quint16(gone->first)}));
                counts.erase(gone);
            }
        }
    }
}

void tst_engine::answersWithWhatItHoldsAsOftenAsAsked()
{
    Side side, other;
    const quint16 asked[] = {3, 0, 2, 3};
    const auto answers = [&](Side &to, char id) {
        to.receive(Packet::makeStatusRequest(stamp, id, asked));
        return to.take();
    };
    const quint8 counter = quint8(answers(other, 0).at(0).at(2)); // of an engine that holds nothing
    side.receive(information(9, 5, "x"));
    for (const quint16 number :
        std::initializer_list<quint16>{1, 3, 3, 6}) // more than announced is dropped
        side.receive(Packet::makeData(stamp, 9, number, "data"));
    const quint16 held[] = {0, 3, 3};
    const Packet::Stamp next = {quint8(counter + 1), 0};
    QCOMPARE(answers(side, 9), QList<Bytes>(2, Packet::makeAcknowledgement(next, 9, held, 3)));
    QVERIFY(answers(side, 8).isEmpty());
}

void tst_engine::gathersAfreshWithEveryInformationRecord()
{
    Side side;
    side.engine.SendPath(path(u""_s) + u'/');
    const Bytes stream = compressed("gathered");
    const auto send = [&](quint16 number, const Bytes &payload) {
        side.receive(Packet::makeData(stamp, 9, number, payload));
    };
    side.receive(information(9, 2, "x"));
    send(1, "old");
    side.receive(information(9, 2, "x"));
    send(2, stream.sliced(4));
    send(2, stream.sliced(4));
    QVERIFY(side.received.isEmpty());
    send(1, stream.first(4));
    QCOMPARE(side.received, QStringList(u"x"_s));
    send(1, "late");
    QCOMPARE(contentOf(path(u"x"_s)), "gathered");
}

void tst_engine::stopEndsBothDirections()
{
    Side side;
    side.engine.SendPath(path(u""_s) + u'/');
    side.engine.OpenFile(makeFile(u"a.dat"_s, "a"));
    side.receive(information(9, 1, "x"));
    side.engine.Stop();
    side.tick();
    side.receive(acknowledgement(41, {0, 1}));
    side.receive(Packet::makeData(stamp, 9, 1, "data"));
    QVERIFY(side.packets.isEmpty() && side.sended == 0 && side.received.isEmpty());
}

// Both roles at once; afterwards the engine still works.
void tst_engine::survivesMutatedDatagrams()
{
    Channel channel;
    channel.left.engine.SendPath(path(u""_s) + u'/');
    channel.right.engine.SendPath(path(u"right-"_s));
    const Bytes stream = noise(700, 3);
    const quint16 numbers[] = {0, 1, 2, 3, 1};
    const QList<Bytes> seeds = {information(9, 3, "name.dat"),
        Packet::makeData(stamp, 9, 1, stream.first(250)),
        Packet::makeData(stamp, 9, 3, stream.last(200)),
        Packet::makeStatusRequest(stamp, 9, numbers), acknowledgement(41, {0, 1, 2, 3}),
        acknowledgement(42, {0}), Packet::makeMessage(stamp, "TAGGE", "text")};
    const Bytes extremes = Bytes::fromHex("0001007f80fbfcff");
    for (int i = 0; i < 30'000; ++i) {
        Bytes datagram = seeds.at(channel.random.bounded(int(seeds.size())));
        for (int change = channel.random.bounded(1, 4); change > 0 && !datagram.isEmpty();
             --change) {
            const int at = channel.random.bounded(std::min(int(datagram.size()), 24));
            if (channel.random.bounded(4) == 0)
                datagram.resize(channel.random.bounded(400), 'x');
            else
                datagram[at] = extremes.at(channel.random.bounded(int(extremes.size())));
        }
        channel.left.receive(datagram);
        if (i % 100 == 0)
            channel.left.engine.OpenFile(makeFile(u"out"_s, "abc"));
        channel.left.tick();
        channel.left.take();
    }
    for (const QString &name : filesBelow(path(u""_s) + u'/'))
        QVERIFY2(name == "out"_L1 || channel.left.received.contains(name), qPrintable(name));

    channel.left.engine.OpenFile(makeFile(u"out"_s, "still alive"));
    QVERIFY(channel.run(channel.left.sended + 1, 0));
    QCOMPARE(contentOf(path(u"right-out"_s)), "still alive");
}

void tst_engine::writesPlainNamesOnly_data()
{
    QTest::addColumn<Bytes>("name");
    QTest::addColumn<bool>("isWritten");
    QTest::newRow("plain") << Bytes("a.dat") << true;
    QTest::newRow("Latin-1") << Bytes("\xE9t\xE9") << true;
    QTest::newRow("97 bytes") << Bytes(97, 'n') << true;
    QTest::newRow("98 bytes") << Bytes(98, 'n') << false;
    QTest::newRow("empty") << Bytes("") << false;
    QTest::newRow("this folder") << Bytes(".") << false;
    QTest::newRow("folder above") << Bytes("..") << false;
    QTest::newRow("in the folder above") << Bytes("../x") << false;
    QTest::newRow("absolute") << Bytes("/etc/x") << false;
    QTest::newRow("in a folder that is there") << Bytes("sub/x") << false;
    QTest::newRow("hidden") << Bytes(".x") << false;
    QTest::newRow("zero byte") << Bytes("x\0y", 3) << false;
}

void tst_engine::writesPlainNamesOnly()
{
    QFETCH(Bytes, name);
    QFETCH(bool, isWritten);
    QVERIFY(QDir(path(u""_s)).mkpath(u"in/sub"_s));
    Side side;
    side.engine.SendPath(path(u"in/"_s));
    receiveFile(side, name);
    const QString written = QString::fromLatin1(name);
    QCOMPARE(side.received, isWritten ? QStringList(written) : QStringList());
    QCOMPARE(filesBelow(path(u""_s)), isWritten ? QStringList(u"/in/"_s + written) : QStringList());

    const quint16 asked[] = {0, 1};
    side.receive(Packet::makeStatusRequest(stamp, 9, asked));
    if (name.size() <= 97) // acknowledged all the same
        QCOMPARE(Packet::read(side.packets.value(0))->entryCount(), 2);
}

void tst_engine::refusesWhatItCannotSend_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("size");
    QTest::newRow("name of 98 characters") << QString(98, u'n') << 1;
    QTest::newRow("name that is not Latin-1") << u"файл"_s << 1;
    QTest::newRow("missing") << u"missing"_s << -1;
    QTest::newRow("no regular file") << u"."_s << -1;
    QTest::newRow("more than 65535 packets") << u"large"_s << 16'383'750;
}

void tst_engine::refusesWhatItCannotSend()
{
    QFETCH(QString, name);
    QFETCH(int, size);
    if (size >= 0)
        makeFile(name, noise(size, 1));
    Side side;
    side.engine.OpenFile(path(name));
    side.tick();
    QCOMPARE(side.refused, QStringList(path(name)));
    QVERIFY(side.packets.isEmpty());

    const QString longest = QString(96, u'n') + u'é';
    side.engine.OpenFile(makeFile(longest, "a"));
    side.tick();
    QCOMPARE(side.packets, QList<Bytes>{information(41, 1, longest.toLatin1())});
}

void tst_engine::keepsWhatCorruptStreamsContain()
{
    Side side;
    side.engine.SendPath(path(u""_s) + u'/');
    const Bytes content = noise(5'000, 4);
    receiveFile(side, "cut", compressed(content).first(3'000));
    receiveFile(side, "nothing", "no stream");
    QCOMPARE(side.received, QStringList({u"cut"_s, u"nothing"_s}));
    const Bytes cut = contentOf(path(u"cut"_s));
    QVERIFY(cut.size() > 2'000 && content.startsWith(cut));
    QCOMPARE(contentOf(path(u"nothing"_s)), "");
}

void tst_engine::keepsTheOldFileUntilTheNewOneIsWhole()
{
    Side side;
    side.engine.SendPath(path(u""_s) + u'/');
    makeFile(u"x"_s, "old");
    const Bytes large = compressed(Bytes(1'000'000, 'x'));

    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full = {500'000, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    receiveFile(side, "x", large);
    setrlimit(RLIMIT_FSIZE, &limit);
    QCOMPARE(contentOf(path(u"x"_s)), "old");
    QCOMPARE(filesBelow(path(u""_s)), QStringList(u"/x"_s));
    QVERIFY(side.received.isEmpty());

    receiveFile(side, "x", large);
    QCOMPARE(contentOf(path(u"x"_s)).size(), 1'000'000);
}

void tst_engine::memoryDoesNotFollowTheInflatedSize()
{
    const qint64 size = 200'000'000;
    QFile zeros(path(u"zeros"_s));
    QVERIFY(zeros.open(QFile::WriteOnly) && zeros.resize(size));
    Channel channel;
    channel.right.engine.SendPath(path(u"right-"_s));
    const qint64 before = peakMemory();
    channel.left.engine.OpenFile(zeros.fileName());
    QVERIFY(channel.run(1, 0));
    QCOMPARE(QFile(path(u"right-zeros"_s)).size(), size);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take their own
    const qint64 extra = peakMemory() - before;
    QVERIFY2(extra < 4'000'000, qPrintable(QString::number(extra)));
#else
    Q_UNUSED(before);
#endif
}

void tst_engine::filesMayBeOpenedFromAnotherThread()
{
    Channel channel;
    TFileTransfer &engine = channel.left.engine;
    channel.right.engine.SendPath(path(u"right-"_s));
    const QString file = makeFile(u"f"_s, noise(100'000, 5));
    QThread *signalled = nullptr;
    const auto remember = [&] { signalled = QThread::currentThread(); };
    connect(&engine, &TFileTransfer::FileRefused, &engine, remember, Qt::DirectConnection);
    for (int round = 1; round <= 5; ++round) {
        std::thread worker([&] {
            engine.OpenFile(path(u"missing"_s));
            engine.OpenFile(file);
        });
        QTRY_VERIFY((channel.left.tick(), !channel.left.packets.isEmpty()));
        worker.join();
        QVERIFY(channel.run(round, 0));
    }
    QCOMPARE(signalled, QThread::currentThread());
    QVERIFY(contentOf(path(u"right-f"_s)) == contentOf(file));
}

QTEST_GUILESS_MAIN(tst_engine)
#include "tst_engine.moc"
