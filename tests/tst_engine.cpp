#include "AnswerWatch.h"
#include "ReceivedFiles.h"
#include "kit/Channel.h"

#include <QCoreApplication>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
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

Bytes acknowledgement(int id, std::initializer_list<quint16> numbers, int count = 1)
{
    return Packet::makeAcknowledgement(
        stamp, char(id), std::span(numbers.begin(), numbers.end()), count);
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

// How a peer falls silent. Times are in seconds.
struct Silence
{
    int interval = 1; // between two requests
    int datagrams = 20; // of each request
    int answered = 1; // one request in so many
    int taken = 1; // until the last answer
    QList<Bytes> peer = {}; // what it sends over and over from then on
};

// Returns how many seconds after the last answer the requests turn out to be in vain.
int patience(const Silence &silence)
{
    AnswerWatch watch;
    AnswerWatch::Clock::time_point now{std::chrono::hours(1)};
    int time = 0;
    for (bool isInVain = false; !isInVain && time < 2'000; time += silence.interval) {
        now += std::chrono::seconds(silence.interval);
        for (int i = 0; i < silence.datagrams; ++i)
            isInVain |= watch.countRequest(41, now);
        if (time <= silence.taken && time / silence.interval % silence.answered == 0)
            watch.received(*Packet::read(acknowledgement(41, {1})), now);
        for (const Bytes &packet : time > silence.taken ? silence.peer : QList<Bytes>())
            watch.received(*Packet::read(packet), now + std::chrono::seconds(silence.interval - 1));
    }
    return time - silence.interval - silence.taken;
}

// Returns the first packet sent more rarely than the first of all, or else that one.
auto chosenByAWalkOver(QMap<int, qint8> &counts)
{
    const auto isRarer = [&](qint8 count) { return count < counts.first(); };
    const auto rarer = std::find_if(counts.begin(), counts.end(), isRarer);
    return rarer == counts.end() ? counts.begin() : rarer;
}

QByteArrayList hexAfterTicks(Side &side, int count)
{
    while (count-- > 0)
        side.tick();
    QByteArrayList hex;
    for (const Bytes &packet : side.take())
        hex.append(packet.toHex());
    return hex;
}

volatile std::sig_atomic_t isDiskFull = false; // a write has exceeded the limit of the process

} // namespace

class tst_engine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void memoryDoesNotFollowTheInflatedSize();
    void filesCrossABadChannelBothWays();
    void acknowledgementsOfAnOldFileAreNoDelivery();
    void lateInformationRecordCostsNoFile_data();
    void lateInformationRecordCostsNoFile();
    void unwritableFileIsTriedUntilTheNextBegins();
    void noFileBeginsWhileTooManyWaitToBeWritten();
    void forgetfulPeerIsToldFromASlowOne();
    void ticksGiveTheseBytes();
    void fileAfterAnAbandonedOneBeginsAnew();
    void waitsForQuietTicksAndEndsWhenStopped();
    void idsRunTo127AndGoOnWith0();
    void choosesAsAWalkOverTheTableWould();
    void answersWithWhatItHoldsAndGathersAfresh();
    void writesWhatStreamsHoldUnderPlainNames_data();
    void writesWhatStreamsHoldUnderPlainNames();
    void takesOrRefusesFilesOfAnotherThread();
    void keepsTheOldFileUntilTheNewOneIsWhole();
    void lateTicksAreMadeUpForUpToATenthOfASecond();
};

// Comes first, because only the peak of the whole process is known.
void tst_engine::memoryDoesNotFollowTheInflatedSize()
{
    const qint64 size = 100'000'000;
    Channel channel;
    QFile zeros(channel.left.folder.path(u"zeros"_s));
    QVERIFY(zeros.open(QFile::WriteOnly) && zeros.resize(size));
    [[maybe_unused]] const qint64 before = peakMemory();
    channel.left.engine.OpenFile(zeros.fileName());
    QVERIFY(channel.run(1, 0));
    QCOMPARE(QFile(channel.right.folder.path(u"in/zeros"_s)).size(), size);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // sanitizers need more
    QVERIFY(peakMemory() - before < 4'000);
#endif
}

void tst_engine::filesCrossABadChannelBothWays()
{
    const Bytes content = noise(100'000, 1), other = noise(50'001, 2);
    for (const int loss : {0, 10, 33, 50}) {
        const Bytes row = Bytes::number(loss) + " % lost each way";
        Channel channel;
        channel.loss = loss;
        channel.left.open(u"out"_s, content);
        channel.right.open(u"back"_s, other);
        const int ticks = channel.run(1, 1);
        QVERIFY2(ticks > 0, row);
        QVERIFY2(channel.right.folder.readFile(u"in/out"_s) == content, row);
        QVERIFY2(channel.left.folder.readFile(u"in/back"_s) == other, row);
        if (loss == 0) // three ticks to announce; then four packets and a request in five
            QCOMPARE(ticks, 3 + 5 * ((compressed(content).size() + 999) / 1'000));
    }
}

void tst_engine::acknowledgementsOfAnOldFileAreNoDelivery()
{
    // Takes the peer's own counts, one with each acknowledgement.
    const auto endAfter = [](const std::array<int, 4> &counts) {
        Side side;
        side.open(u"f"_s, noise(700, 1)); // of three packets
        for (quint16 number = 0; number < 4; ++number)
            side.receive(acknowledgement(41, {number}, counts.at(number)));
        side.tick();
        const auto next = Packet::read(side.packets.value(0));
        return u"sent "_s.repeated(side.delivered) + u"forgotten "_s.repeated(side.forgotten)
            + (next && next->number == 0 ? u"announcing "_s : QString());
    };
    QCOMPARE(endAfter({1, 2, 3, 4}), u"sent "_s);
    QCOMPARE(endAfter({1, 1, 1, 1}), u"sent "_s); // the peer always says 1
    QCOMPARE(endAfter({1, 2, 4, 3}), u"sent "_s); // the last answer is an older one
    QCOMPARE(endAfter({4, 4, 4, 4}), u"announcing "_s); // the peer holds another file of this id
    QCOMPARE(endAfter({1, 3, 1, 2}), u"forgotten "_s); // the peer has begun afresh
}

void tst_engine::lateInformationRecordCostsNoFile_data()
{
    using Numbers = QList<int>; // of the packets, as they arrive
    QTest::addColumn<Numbers>("numbers");
    QTest::addColumn<Bytes>("others"); // of another file with the same name and length
    QTest::addColumn<int>("written"); // how often
    const Bytes stream = compressed(noise(700, 1));
    QTest::newRow("in the middle") << Numbers{0, 1, 0, 2, 3} << stream << 1;
    QTest::newRow("twice") << Numbers{0, 2, 0, 3, 0, 1} << stream << 1;
    QTest::newRow("another packet comes again") << Numbers{0, 1, 0, 2, 3, 1} << stream << 1;
    QTest::newRow("after the end") << Numbers{0, 1, 2, 3, 0, 2, 3} << stream << 1;
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
    QCOMPARE(side.trouble, QStringList()); // files that do not fit together are no news
    QCOMPARE(side.folder.readFile(u"in/x"_s), written > 0 ? noise(700, 1) : Bytes());
}

void tst_engine::unwritableFileIsTriedUntilTheNextBegins()
{
    Side side;
    const QString obstacle = side.folder.makeFolder(u"in/x"_s);
    receiveFile(side, "x", compressed("first"));
    side.receive(information(1, "next"));
    receiveFile(side, "x", compressed("second"));
    side.engine.receivedFiles().finish(std::chrono::seconds(0)); // tries once more
    QCOMPARE(side.trouble.filter(u"trying again"_s).size(), 2);
    QCOMPARE(side.trouble.filter(u"is lost"_s).size(), 2);

    receiveFile(side, "x", compressed("third"));
    QVERIFY(QDir().rmdir(obstacle));
    receiveFile(side, "x", compressed("fourth")); // replaces the third
    side.engine.receivedFiles().finish(std::chrono::seconds(0));
    QCOMPARE(side.folder.readFile(u"in/x"_s), "fourth");

    const QString another = side.folder.makeFolder(u"in/y"_s);
    receiveFile(side, "y", compressed("fifth"));
    QVERIFY(QDir().rmdir(another));
    QTRY_COMPARE(side.folder.readFile(u"in/y"_s), "fifth");
}

// Of empty blocks: slow to inflate, and nothing to write.
void tst_engine::noFileBeginsWhileTooManyWaitToBeWritten()
{
    Side side;
    ReceivedFiles &files = side.engine.receivedFiles();
    files.workInBackground();
    TTransferData blocks = {.length = 251};
    std::ranges::copy(Bytes::fromHex("000000ffff").repeated(50), blocks.data);
    QMap<int, TTransferData> packets = {{1, {.data = {'\x78', '\xDA'}, .length = 3}}};
    for (int number = 2; number <= Packet::maxNumber; ++number)
        packets.insert(packets.cend(), number, blocks);
    for (int file = 0; file < 2; ++file)
        files.write({u"x"_s, side.folder.path(u"in/x"_s), packets});
    receiveFile(side, "y", compressed("dropped"));
    files.finish(std::chrono::seconds(0));
    QCOMPARE(side.trouble.filter(u"no time to write"_s).size(), 1);

    files.finish(std::chrono::minutes(1));
    receiveFile(side, "y", compressed("taken"));
    files.finish(std::chrono::minutes(1));
    QCOMPARE(side.received, QStringList({u"x"_s, u"x"_s, u"y"_s}));
    QCOMPARE(side.folder.readFile(u"in/y"_s), "taken");
}

void tst_engine::forgetfulPeerIsToldFromASlowOne()
{
    const Bytes first = data(0, "0123"), second = data(1, "0123");
    // silent
    QCOMPARE(patience({}), 301);
    QCOMPARE(patience({.taken = 600}), 601);
    // sends without hearing us
    QCOMPARE(patience({.peer = {first}}), 6);
    QCOMPARE(patience({.taken = 600, .peer = {second}}), 601);
    // sends and hears us
    QCOMPARE(patience({.taken = 600, .peer = {first, second}}), 6);
    // acknowledges nothing or another file
    QCOMPARE(patience({.peer = {acknowledgement(41, {}), acknowledgement(40, {1})}}), 6);
    // has a slow pace; all answers arrive, or few
    QCOMPARE(patience({5, 2, 1, 500, {first, second}}), 25);
    QCOMPARE(patience({5, 2, 4, 500, {first, second}}), 85);
}

void tst_engine::ticksGiveTheseBytes()
{
    Side side;
    side.open(u"a.dat"_s, "a");
    QCOMPARE(hexAfterTicks(side, 3),
        QByteArrayList({"a4d500000007000108b12900000001612e646174012c",
            "a4d501000007000108b12900000001612e646174012d",
            "a4d50200000d000102b229000200000000ff68", "a4d50200000d000102b229000200000000ff68"}));
    side.receive(acknowledgement(41, {0, 0}));
    QCOMPARE(hexAfterTicks(side, 5),
        QByteArrayList({"a4d50300000900010ab129000178da4b04000062006200d0",
            "a4d50400000900010ab129000178da4b04000062006200d1",
            "a4d50500000900010ab129000178da4b04000062006200d2",
            "a4d50600000900010ab129000178da4b04000062006200d3",
            "a4d50700000d000102b22900040001000100010001ff73",
            "a4d50700000d000102b22900040001000100010001ff73"}));
    side.receive(acknowledgement(40, {7, 1, 1})); // of another file
    QCOMPARE(side.delivered, 0);
    for (int copy = 0; copy < 2; ++copy)
        side.receive(acknowledgement(41, {7, 1, 1}));
    QCOMPARE(side.delivered, 1);

    char tag[] = {'T', 'A', 'G', 'G', 'E'};
    side.engine.SendInfo(tag, u"x"_s + QString(200, QChar(u'é'))); // 401 bytes
    const Bytes message = side.take().at(0);
    QCOMPARE(message.size(), 18 + 247);
    QVERIFY(message.startsWith(Bytes::fromHex("a4d5080000010801feb45441474745f7")));
}

void tst_engine::fileAfterAnAbandonedOneBeginsAnew()
{
    Side side;
    side.open(u"abandoned"_s, noise(2'000, 1));
    side.receive(acknowledgement(41, {0}));
    hexAfterTicks(side, 6);
    side.open(u"c.dat"_s, "c");
    QCOMPARE(hexAfterTicks(side, 3),
        QByteArrayList({"a4d506000007000108b12a00000001632e6461740135",
            "a4d507000007000108b12a00000001632e6461740136",
            "a4d50800000d000102b22a000200000000ff6f", "a4d50800000d000102b22a000200000000ff6f"}));
}

void tst_engine::waitsForQuietTicksAndEndsWhenStopped()
{
    Side side(3);
    side.open(u"a.dat"_s, "a");
    QString ticks;
    for (const Bytes &arriving : {Bytes(), information(1, "x"),
             Packet::makeStatusRequest(stamp, 8, {}), acknowledgement(1, {5})}) {
        side.receive(arriving);
        for (int i = 0; i < 3; ++i)
            ticks += (side.tick(), side.take().isEmpty()) ? u'-' : u'x';
        ticks += u' ';
    }
    QCOMPARE(ticks, u"xxx --x --x xxx "_s);

    side.engine.Stop();
    side.tick();
    side.receive(acknowledgement(41, {0, 1}));
    side.receive(data(1, "data"));
    QVERIFY(side.packets.isEmpty() && side.delivered == 0 && side.received.isEmpty());
}

void tst_engine::idsRunTo127AndGoOnWith0()
{
    Side side;
    for (int file = 0; file < 89; ++file) {
        side.open(u"a.dat"_s, ""); // announced only
        side.receive(acknowledgement((41 + file) % 128, {0}));
        QCOMPARE(side.delivered, file + 1);
    }
}

// Acknowledgements come seldom enough for the counts to wrap.
void tst_engine::choosesAsAWalkOverTheTableWould()
{
    for (quint32 seed = 1; seed <= 21; ++seed) {
        QRandomGenerator random(seed);
        const int packets = 1 + random.bounded(60);
        Side side;
        side.open(u"f"_s, noise(250 * packets - 100, seed));
        side.receive(acknowledgement(41, {0}));
        QMap<int, qint8> counts;
        for (int number = 1; number <= packets; ++number)
            counts[number] = 0;
        QList<quint16> listed; // the last 25 that were sent and are not acknowledged
        while (!counts.isEmpty()) {
            side.tick();
            const Bytes bytes = side.take().value(0);
            if (const auto packet = Packet::read(bytes); packet && packet->kind == Packet::Data) {
                const auto chosen = chosenByAWalkOver(counts);
                QCOMPARE(packet->number, chosen.key());
                *chosen = qint8(*chosen + 1);
                listed = (listed << packet->number).last(std::min<qsizetype>(listed.size(), 25));
            } else {
                const Packet::Stamp counter = {quint8(bytes.at(2)), 0};
                QCOMPARE(bytes, Packet::makeStatusRequest(counter, 41, listed));
            }
            if (random.bounded(8 << seed % 7) == 0) {
                const quint16 gone = quint16(counts.keys().at(random.bounded(counts.size())));
                side.receive(acknowledgement(41, {gone}));
                counts.remove(gone);
                listed.removeAll(gone);
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
    QTest::addColumn<int>("lines"); // for the operator
    const Bytes content = noise(5'000, 4), stream = compressed(content);
    QTest::newRow("longest name, in Latin-1") << Bytes(97, '\xE9') << stream << content << 0;
    QTest::newRow("longer name") << Bytes(98, 'n') << stream << Bytes() << 0;
    for (const Bytes &bad : {Bytes("../x"), Bytes("/x"), Bytes("sub/x"), Bytes("x/"), Bytes(".."),
             Bytes(".x"), Bytes(), Bytes("x\0y", 3)})
        QTest::addRow("refused name \"%s\"", bad.toPercentEncoding().constData())
            << bad << stream << Bytes() << 1;
    QTest::newRow("surplus") << Bytes("x") << stream + "surplus" << content << 0;
    QTest::newRow("wrong checksum, so that it would look whole")
        << Bytes("x") << stream.chopped(1) + '?' << Bytes() << 1;
    // The stream's head has 2 bytes, that of its only block 5.
    QTest::newRow("cut short") << Bytes("x") << stream.first(3'000) << content.first(2'993) << 1;
    QTest::newRow("no stream") << Bytes("x") << Bytes("no stream") << Bytes("") << 1;
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
    QTEST(int(side.trouble.size()), "lines");

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
    const QString fifo = side.folder.path(u"fifo"_s);
    QCOMPARE(mkfifo(qPrintable(fifo), 0600), 0);
    const QStringList unreadable = {side.folder.path(u"missing"_s), side.folder.path(), fifo,
        u"/proc/self/mem"_s}; // which opens, but has nothing at its beginning
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
    const QString elsewhere = side.folder.writeFile(u"elsewhere"_s, "old");
    QVERIFY(QFile::link(elsewhere, side.folder.path(u"in/x"_s)));
    const auto receive = [&](qint64 maxBytes) {
        side.engine.receivedFiles().setMaxBytes(maxBytes);
        receiveFile(side, "x", compressed(Bytes(1'000'000, 'x')));
    };
    std::signal(SIGXFSZ, [](int) { isDiskFull = true; });
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit full = {500'000, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    receive(400'000);
    QVERIFY(!isDiskFull);
    receive(0);
    setrlimit(RLIMIT_FSIZE, &limit);
    QVERIFY(isDiskFull);
    receive(999'999);
    QCOMPARE(side.folder.readFile(u"in/x"_s), "old");
    QCOMPARE(filesBelow(side.folder.path()), 2);
    QVERIFY(side.received.isEmpty());

    receive(1'000'000);
    QCOMPARE(side.folder.readFile(u"in/x"_s).size(), 1'000'000);
    QCOMPARE(side.folder.readFile(u"elsewhere"_s), "old"); // the link was replaced, not followed
}

void tst_engine::lateTicksAreMadeUpForUpToATenthOfASecond()
{
    TickTimer timer;
    QList<int> counts;
    connect(&timer, &TickTimer::ticked, this, [&](int count) { counts.append(count); });
    timer.start(std::chrono::milliseconds(1));
    QThread::msleep(150); // the event loop is held up
    QTRY_VERIFY(!counts.isEmpty());
    QCOMPARE(counts.first(), 101);
}

QTEST_GUILESS_MAIN(tst_engine)
#include "tst_engine.moc"
