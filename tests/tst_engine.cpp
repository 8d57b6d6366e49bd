#include "AnswerWatch.h"
#include "ReceivedFiles.h"
#include "kit/Channel.h"

#include <QCoreApplication>

#include <csignal>
#include <sys/resource.h>
#include <thread>

namespace {

constexpr Packet::Stamp stamp = {0, 0};

// Returns the stream that a sender makes of the content.
Bytes compressed(const Bytes &content)
{
    return qCompress(content, 7).sliced(4);
}

// Packets of a peer: those of its file 9, and acknowledgements of a file of ours.
Bytes data(quint16 number, const Bytes &payload)
{
    return Packet::makeData(stamp, 9, number, payload);
}

Bytes information(quint16 count, const Bytes &name)
{
    return data(0, InformationRecord{count, name}.write());
}

Bytes acknowledgement(int id, std::initializer_list<quint16> numbers)
{
    return Packet::makeAcknowledgement(
        stamp, char(id), std::span(numbers.begin(), numbers.end()), 1);
}

void receiveFile(Side &side, const Bytes &name, const Bytes &stream)
{
    const quint16 count = quint16((stream.size() + 249) / 250);
    side.receive(information(count, name));
    for (quint16 number = 1; number <= count; ++number)
        side.receive(data(number, stream.mid(250 * (number - 1), 250)));
}

qint64 peakMemory() // kilobytes
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

} // namespace

class tst_engine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void filesCrossABadChannelBothWays_data();
    void filesCrossABadChannelBothWays();
    void mutatedDatagramsDoNoHarm();
    void keptPacketsOfAnOldFileAreNoDelivery_data();
    void keptPacketsOfAnOldFileAreNoDelivery();
    void lateInformationRecordCostsNoFile_data();
    void lateInformationRecordCostsNoFile();
    void unwritableFileIsTriedUntilTheNextBegins();
    void forgetfulPeerIsToldFromASlowOne_data();
    void forgetfulPeerIsToldFromASlowOne();
    void forgetfulPeerIsToldAtASlowPace_data();
    void forgetfulPeerIsToldAtASlowPace();
    void ticksGiveTheseBytes();
    void waitsForQuietTicksAndEndsWhenStopped();
    void idsRunTo127AndGoOnWith0();
    void choosesAsAWalkOverTheTableWould();
    void answersWithWhatItHoldsAndGathersAfresh();
    void writesWhatStreamsHoldUnderPlainNames_data();
    void writesWhatStreamsHoldUnderPlainNames();
    void takesOrRefusesFilesOfAnotherThread();
    void keepsTheOldFileUntilTheNewOneIsWhole();
    void memoryDoesNotFollowTheInflatedSize();
};

void tst_engine::filesCrossABadChannelBothWays_data()
{
    QTest::addColumn<int>("loss");
    for (const int loss : {0, 10, 33, 50})
        QTest::addRow("%d %% lost each way", loss) << loss;
}

void tst_engine::filesCrossABadChannelBothWays()
{
    QFETCH(int, loss);
    Channel channel;
    channel.loss = loss;
    const Bytes content = noise(100'000, 1), other = noise(50'001, 2);
    channel.left.open(u"out"_s, content);
    channel.right.open(u"back"_s, other);
    const int ticks = channel.run(1, 1);
    QVERIFY(ticks > 0);
    QVERIFY(channel.right.folder.readFile(u"in/out"_s) == content);
    QVERIFY(channel.left.folder.readFile(u"in/back"_s) == other);
    if (loss == 0) // three to announce; four packets and a request in five
        QCOMPARE(ticks, 3 + 5 * ((compressed(content).size() + 999) / 1'000));
}

void tst_engine::mutatedDatagramsDoNoHarm()
{
    Channel channel;
    Side &side = channel.right;
    QList<Bytes> good = {acknowledgement(41, {0, 1, 2}), Packet::makeStatusRequest(stamp, 9, {})};
    const Bytes stream = compressed(noise(2'000, 3));
    good.append(information(9, "x"));
    for (quint16 number = 1; number <= 9; ++number)
        good.append(data(number, stream.mid(250 * (number - 1), 250)));
    side.open(u"out"_s, noise(500, 1));
    QRandomGenerator random(1);
    for (int i = 0; i < 30'000; ++i) {
        Bytes datagram = good.at(random.bounded(int(good.size())));
        for (int flips = random.bounded(4); flips > 0; --flips)
            datagram[random.bounded(int(datagram.size()))] = char(random.generate());
        datagram.resize(random.bounded(3) > 0 ? datagram.size() : random.bounded(300), 'x');
        side.receive(datagram);
        side.tick();
    }
    side.take();
    QCOMPARE(QDir(side.folder.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size(), 2);
    channel.left.open(u"f"_s, "still alive");
    QVERIFY(channel.run(1, 0) > 0);
    QCOMPARE(side.folder.readFile(u"in/f"_s), "still alive");
}

void tst_engine::keptPacketsOfAnOldFileAreNoDelivery_data()
{
    using Counts = QList<int>; // the peer's own, with each acknowledgement
    QTest::addColumn<Counts>("counts");
    QTest::addColumn<QString>("end");
    QTest::newRow("counts all") << Counts{1, 2, 3, 4} << u"sent"_s;
    QTest::newRow("always says 1") << Counts{1, 1, 1, 1} << u"sent"_s;
    QTest::newRow("the last answer is an older one") << Counts{1, 2, 4, 3} << u"sent"_s;
    QTest::newRow("still holds another file") << Counts{4, 4, 4, 4} << u"announcing"_s;
    QTest::newRow("has begun afresh") << Counts{1, 3, 1, 2} << u"forgotten"_s;
}

void tst_engine::keptPacketsOfAnOldFileAreNoDelivery()
{
    QFETCH(QList<int>, counts);
    QFETCH(QString, end);
    Side side;
    side.open(u"f"_s, noise(700, 1)); // of three packets
    for (quint16 number = 0; number < 4; ++number)
        side.receive(
            Packet::makeAcknowledgement(stamp, 41, std::span(&number, 1), counts.at(number)));
    side.tick();
    const auto next = Packet::read(side.packets.value(0));
    QCOMPARE(side.sended, int(end == u"sent"));
    QCOMPARE(side.forgotten, int(end == u"forgotten"));
    QCOMPARE(next && next->number == 0, end == u"announcing");
}

void tst_engine::lateInformationRecordCostsNoFile_data()
{
    using Numbers = QList<int>; // of the packets, as they arrive
    QTest::addColumn<Numbers>("numbers");
    QTest::addColumn<Bytes>("others"); // of another file with the same name and length
    QTest::addColumn<int>("written"); // how often
    const Bytes stream = compressed(noise(700, 1));
    QTest::newRow("in the midst") << Numbers{0, 1, 0, 2, 3} << stream << 1;
    QTest::newRow("twice") << Numbers{0, 2, 0, 3, 0, 1} << stream << 1;
    QTest::newRow("everything comes again") << Numbers{0, 1, 0, 2, 3, 1} << stream << 1;
    QTest::newRow("behind the end") << Numbers{0, 1, 2, 3, 0, 2, 3} << stream << 1;
    QTest::newRow("the file is sent once more") << Numbers{0, 1, 2, 3, 0, 1, 2, 3} << stream << 2;
    QTest::newRow("another file") << Numbers{0, 1, 0, 2, 3} << compressed(noise(700, 2)) << 0;
}

void tst_engine::lateInformationRecordCostsNoFile()
{
    QFETCH(QList<int>, numbers);
    QFETCH(Bytes, others);
    QFETCH(int, written);
    const Bytes stream = compressed(noise(700, 1));
    Side side;
    int begun = 0;
    QList<quint16> held; // since the last packet 0
    for (const int number : numbers) {
        begun += number == 0;
        const Bytes &from = begun == 1 ? stream : others;
        side.receive(number == 0 ? information(3, "x")
                                 : data(quint16(number), from.mid(250 * (number - 1), 250)));
        if (number == 0)
            held.clear();
        held.append(quint16(number));
        std::sort(held.begin(), held.end());
        const quint16 asked[] = {0, 1, 2, 3};
        side.receive(Packet::makeStatusRequest(stamp, 9, asked));
        const Bytes answer = side.take().value(0);
        const Packet::Stamp counter = {quint8(answer.at(2)), 0};
        QCOMPARE(answer, Packet::makeAcknowledgement(counter, 9, held, held.size()));
    }
    QCOMPARE(side.received.size(), written);
    QCOMPARE(side.folder.readFile(u"in/x"_s), written > 0 ? noise(700, 1) : Bytes());
}

void tst_engine::unwritableFileIsTriedUntilTheNextBegins()
{
    Side side;
    side.folder.makeFolder(u"in/x"_s);
    receiveFile(side, "x", compressed("first"));
    side.engine.receivedFiles().finish(std::chrono::seconds(1)); // tries once more
    QCOMPARE(side.trouble.size(), 2);
    receiveFile(side, "x", compressed("second"));
    QVERIFY(QDir(side.folder.path()).rmdir(u"in/x"_s));
    QTRY_COMPARE(side.received.size(), 1);
    QCOMPARE(side.folder.readFile(u"in/x"_s), "second");
}

void tst_engine::forgetfulPeerIsToldFromASlowOne_data()
{
    QTest::addColumn<QString>("peer"); // what it sends, over and over
    QTest::addColumn<int>("taken"); // seconds of the transfer before it fell silent
    QTest::addColumn<int>("patience"); // seconds from then on
    QTest::newRow("silent") << u""_s << 1 << 300;
    QTest::newRow("silent, after a long time") << u""_s << 600 << 600;
    QTest::newRow("sends without hearing us") << u"0"_s << 1 << 5;
    QTest::newRow("the same, after a long time") << u"1"_s << 600 << 600;
    QTest::newRow("sends and hears us, after a long time") << u"01"_s << 600 << 5;
}

void tst_engine::forgetfulPeerIsToldFromASlowOne()
{
    QFETCH(QString, peer);
    QFETCH(int, taken);
    QFETCH(int, patience);
    using Seconds = std::chrono::seconds;
    AnswerWatch watch;
    const AnswerWatch::Clock::time_point start{Seconds(1'000)};
    const auto hears = [&](const Bytes &packet, int second) {
        watch.received(*Packet::read(packet), start + Seconds(second));
    };
    std::ignore = watch.isInVain(41, start);
    hears(acknowledgement(41, {0}), 0);
    hears(acknowledgement(41, {1}), taken);
    int second = taken;
    for (bool isInVain = false; !isInVain && second < 2'000; ++second) {
        for (int i = 0; i < 20; ++i)
            isInVain |= watch.isInVain(41, start + Seconds(second));
        for (const QChar number : peer)
            hears(data(quint16(number.digitValue()), "0123"), second);
    }
    QCOMPARE(second - 1, taken + patience + 1); // longer than that
}

void tst_engine::forgetfulPeerIsToldAtASlowPace_data()
{
    QTest::addColumn<int>("answered"); // one request of so many
    QTest::addColumn<int>("patience"); // seconds
    QTest::newRow("all answered") << 1 << 25;
    QTest::newRow("many lost") << 4 << 85;
}

// At a tick a second: a request, of two datagrams, every five seconds.
void tst_engine::forgetfulPeerIsToldAtASlowPace()
{
    QFETCH(int, answered);
    QFETCH(int, patience);
    AnswerWatch watch;
    AnswerWatch::Clock::time_point now{std::chrono::hours(1)};
    const auto isInVain = [&] {
        now += std::chrono::seconds(5);
        const bool isFirst = watch.isInVain(41, now);
        return watch.isInVain(41, now) || isFirst;
    };
    for (int request = 1; request <= 100; ++request) {
        QVERIFY(!isInVain());
        if (request % answered == 0)
            watch.received(*Packet::read(acknowledgement(41, {0})), now);
    }
    int waited = 5;
    for (; !isInVain() && waited < 1'000; waited += 5) {
        for (const quint16 number : {quint16(0), quint16(1)})
            watch.received(*Packet::read(data(number, "0123")), now + std::chrono::seconds(4));
    }
    QCOMPARE(waited, patience);
}

void tst_engine::ticksGiveTheseBytes()
{
    Side side;
    const auto ticks = [&](int count) {
        for (int i = 0; i < count; ++i)
            side.tick();
        QByteArrayList hex;
        for (const Bytes &packet : side.take())
            hex.append(packet.toHex());
        return hex;
    };
    side.open(u"a.dat"_s, "a");
    QCOMPARE(ticks(3),
        QByteArrayList({"a4d500000007000108b12900000001612e646174012c",
            "a4d501000007000108b12900000001612e646174012d",
            "a4d50200000d000102b229000200000000ff68", "a4d50200000d000102b229000200000000ff68"}));
    side.receive(acknowledgement(41, {0, 0}));
    QCOMPARE(ticks(5),
        QByteArrayList({"a4d50300000900010ab129000178da4b04000062006200d0",
            "a4d50400000900010ab129000178da4b04000062006200d1",
            "a4d50500000900010ab129000178da4b04000062006200d2",
            "a4d50600000900010ab129000178da4b04000062006200d3",
            "a4d50700000d000102b22900040001000100010001ff73",
            "a4d50700000d000102b22900040001000100010001ff73"}));
    for (const int id : {40, 41, 41})
        side.receive(acknowledgement(id, {7, 1, 1}));
    QCOMPARE(side.sended, 1);

    char tag[] = {'T', 'A', 'G', 'G', 'E'};
    side.engine.SendInfo(tag, u"x"_s + QString(200, QChar(u'é'))); // 401 bytes
    const Bytes message = side.take().at(0);
    QCOMPARE(message.size(), 18 + 247);
    QVERIFY(message.startsWith(Bytes::fromHex("a4d5080000010801feb45441474745f7")));
}

void tst_engine::waitsForQuietTicksAndEndsWhenStopped()
{
    Side side(3);
    side.open(u"a.dat"_s, "a");
    QString ticks;
    for (const Bytes &arriving : {Bytes(), information(1, "x"),
             Packet::makeStatusRequest(stamp, 8, {}), acknowledgement(1, {5})}) {
        side.receive(arriving);
        for (int i = 0; i < 3; ++i) {
            side.tick();
            ticks += side.take().isEmpty() ? u'-' : u'x';
        }
        ticks += u' ';
    }
    QCOMPARE(ticks, u"xxx --x --x xxx "_s);

    side.engine.Stop();
    side.tick();
    side.receive(acknowledgement(41, {0, 1}));
    side.receive(data(1, "data"));
    QVERIFY(side.packets.isEmpty() && side.sended == 0 && side.received.isEmpty());
}

void tst_engine::idsRunTo127AndGoOnWith0()
{
    Side side;
    for (int file = 0; file < 89; ++file) {
        side.open(u"a.dat"_s, ""); // announced only
        side.receive(acknowledgement((41 + file) % 128, {0}));
        QCOMPARE(side.sended, file + 1);
    }
}

// Acknowledgements come seldom enough for the counts to wrap.
void tst_engine::choosesAsAWalkOverTheTableWould()
{
    for (quint32 seed = 1; seed <= 60; ++seed) {
        QRandomGenerator random(seed);
        Side side;
        for (const int id : {41, 42}) {
            const int packets = 1 + random.bounded(id == 41 ? 20 : 60);
            side.open(u"f"_s, noise(250 * packets - 100, seed));
            side.receive(acknowledgement(id, {0}));
            QMap<int, qint8> counts;
            for (int number = 1; number <= packets; ++number)
                counts[number] = 0;
            QList<quint16> listed; // the last 25 that were sent and are not acknowledged
            while (!counts.isEmpty()) {
                side.tick();
                const Bytes bytes = side.take().value(0);
                const auto packet = Packet::read(bytes);
                if (packet && packet->kind == Packet::Data) {
                    const auto rarer = [&](qint8 count) { return count < counts.first(); };
                    auto chosen = std::find_if(counts.begin(), counts.end(), rarer);
                    if (chosen == counts.end())
                        chosen = counts.begin();
                    QCOMPARE(packet->number, chosen.key());
                    *chosen = qint8(*chosen + 1);
                    listed =
                        (listed << packet->number).last(std::min<qsizetype>(listed.size(), 25));
                } else {
                    const Packet::Stamp counter = {quint8(bytes.at(2)), 0};
                    QCOMPARE(bytes, Packet::makeStatusRequest(counter, char(id), listed));
                }
                if (random.bounded(8 << seed % 7) == 0) {
                    const int gone = counts.keys().at(random.bounded(int(counts.size())));
                    side.receive(acknowledgement(id, {quint16(gone)}));
                    counts.remove(gone);
                    listed.removeAll(quint16(gone));
                }
            }
        }
    }
}

void tst_engine::answersWithWhatItHoldsAndGathersAfresh()
{
    Side side;
    side.receive(information(5, "x"));
    side.receive(Packet::makeData(stamp, 8, 2, "of another file"));
    for (const int number : {1, 3, 3, 6}) // more than announced is dropped
        side.receive(data(quint16(number), "old"));
    const quint16 asked[] = {3, 0, 2, 6, 3}, held[] = {0, 3, 3};
    side.receive(Packet::makeStatusRequest(stamp, 8, asked));
    QVERIFY(side.packets.isEmpty());
    side.receive(Packet::makeStatusRequest(stamp, 9, asked));
    const Packet::Stamp counter = {quint8(side.packets.value(0).at(2)), 0};
    QCOMPARE(side.take(), QList<Bytes>(2, Packet::makeAcknowledgement(counter, 9, held, 3)));

    const Bytes stream = compressed("gathered");
    side.receive(information(3, "x"));
    side.receive(Bytes::fromHex("a4d500000000000000b1090002")); // without a byte of content
    side.receive(data(3, stream.sliced(4)));
    side.receive(data(3, stream.sliced(4)));
    QVERIFY(side.received.isEmpty());
    side.receive(data(1, stream.first(4)));
    side.receive(data(1, "late"));
    side.receive(information(0, "x")); // announced only
    QCOMPARE(side.received, QStringList(u"x"_s));
    QCOMPARE(side.folder.readFile(u"in/x"_s), "gathered");
}

void tst_engine::writesWhatStreamsHoldUnderPlainNames_data()
{
    QTest::addColumn<Bytes>("name");
    QTest::addColumn<Bytes>("stream");
    QTest::addColumn<Bytes>("content"); // null if nothing is written
    const Bytes content = noise(5'000, 4), stream = compressed(content);
    QTest::newRow("longest name, in Latin-1") << Bytes(97, '\xE9') << stream << content;
    QTest::newRow("longer name") << Bytes(98, 'n') << stream << Bytes();
    for (const Bytes &bad : {Bytes("../x"), Bytes("/x"), Bytes("sub/x"), Bytes("x/"), Bytes(".."),
             Bytes(".x"), Bytes(), Bytes("x\0y", 3)})
        QTest::addRow("refused name \"%s\"", bad.toPercentEncoding().constData())
            << bad << stream << Bytes();
    QTest::newRow("surplus") << Bytes("x") << stream + "surplus" << content;
    // It would look whole.
    QTest::newRow("wrong checksum") << Bytes("x") << stream.chopped(1) + '?' << Bytes();
    // The stream's head has 2 bytes, that of its only block 5.
    QTest::newRow("cut short") << Bytes("x") << stream.first(3'000) << content.first(2'993);
    QTest::newRow("no stream") << Bytes("x") << Bytes("no stream") << Bytes("");
}

void tst_engine::writesWhatStreamsHoldUnderPlainNames()
{
    QFETCH(Bytes, name);
    QFETCH(Bytes, stream);
    QFETCH(Bytes, content);
    Side side;
    receiveFile(side, name, stream);
    const QString file = QString::fromLatin1(name);
    QCOMPARE(side.received, content.isNull() ? QStringList() : QStringList(file));
    QCOMPARE(side.folder.readFile(u"in/"_s + file), content);
    QCOMPARE(filesBelow(side.folder.path()), content.isNull() ? 0 : 1);

    const quint16 asked[] = {0, 1};
    side.receive(Packet::makeStatusRequest(stamp, 9, asked));
    if (name.size() <= 97) // acknowledged all the same
        QCOMPARE(Packet::read(side.packets.value(0))->entryCount(), 2);
}

void tst_engine::takesOrRefusesFilesOfAnotherThread()
{
    Side side;
    const QStringList bad = {side.folder.writeFile(QString(98, u'n'), "x"),
        side.folder.writeFile(u"файл"_s, "x"),
        side.folder.writeFile(u"of more than 65535 packets"_s, noise(16'383'750, 1))};
    const QStringList unreadable = {side.folder.path(u"missing"_s), side.folder.path()};
    const QString longest = QString(96, u'n') + u'é';
    std::thread([&, good = side.folder.writeFile(longest, "x")] {
        for (const QString &path : bad + unreadable + QStringList(good))
            side.engine.OpenFile(path);
    }).join();
    side.tick();
    QVERIFY(side.packets.isEmpty()); // nothing begins on the other thread
    QCoreApplication::processEvents();
    QCOMPARE(side.refused, bad);
    QCOMPARE(side.unreadable, unreadable);
    side.tick();
    const Bytes record = InformationRecord{1, longest.toLatin1()}.write();
    QCOMPARE(side.packets, QList<Bytes>{Packet::makeData(stamp, 41, 0, record)});
}

void tst_engine::keepsTheOldFileUntilTheNewOneIsWhole()
{
    Side side;
    side.folder.writeFile(u"in/x"_s, "old");
    const Bytes large = compressed(Bytes(1'000'000, 'x'));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full = {500'000, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    receiveFile(side, "x", large);
    setrlimit(RLIMIT_FSIZE, &limit);
    QCOMPARE(side.folder.readFile(u"in/x"_s), "old");
    QCOMPARE(filesBelow(side.folder.path()), 1);
    QVERIFY(side.received.isEmpty());

    side.engine.receivedFiles().setMaxBytes(999'999);
    receiveFile(side, "x", large);
    QCOMPARE(side.folder.readFile(u"in/x"_s), "old");
    side.engine.receivedFiles().setMaxBytes(1'000'000);
    receiveFile(side, "x", large);
    QCOMPARE(side.folder.readFile(u"in/x"_s).size(), 1'000'000);
}

void tst_engine::memoryDoesNotFollowTheInflatedSize()
{
    const qint64 size = 200'000'000;
    Channel channel;
    QFile zeros(channel.left.folder.path(u"zeros"_s));
    QVERIFY(zeros.open(QFile::WriteOnly) && zeros.resize(size));
    [[maybe_unused]] const qint64 before = peakMemory();
    channel.left.engine.OpenFile(zeros.fileName());
    QVERIFY(channel.run(1, 0));
    QCOMPARE(QFile(channel.right.folder.path(u"in/zeros"_s)).size(), size);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they take their own
    QVERIFY(peakMemory() - before < 4'000);
#endif
}

QTEST_GUILESS_MAIN(tst_engine)
#include "tst_engine.moc"
