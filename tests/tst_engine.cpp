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

// Asks about packets of the peer's file. Returns whether the engine acknowledges just these, twice.
bool acknowledges(
    Side &side, std::initializer_list<quint16> asked, const QList<quint16> &held, qsizetype count)
{
    side.receive(Packet::makeStatusRequest(stamp, 9, std::span(asked.begin(), asked.end())));
    const Packet::Stamp counter = {quint8(side.packets.value(0, Bytes(3, '\0')).at(2)), 0};
    return side.take() == QList<Bytes>(2, Packet::makeAcknowledgement(counter, 9, held, count));
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
    void lateInformationRecordCostsNoFile();
    void unwritableFileIsTriedUntilTheNextBegins();
    void noFileBeginsWhileTooManyWaitToBeWritten();
    void forgetfulPeerIsToldFromASlowOne();
    void ticksGiveTheseBytes();
    void waitsForQuietTicksAndEndsWhenStopped();
    void idsRunTo127AndGoOnWith0();
    void choosesAsAWalkOverTheTableWould();
    void answersWithWhatItHoldsAndGathersAfresh();
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
    rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    channel.left.OpenFile(zeros.fileName());
    QVERIFY(channel.run(1, 0));
    QCOMPARE(QFile(channel.right.folder.path(u"in/zeros"_s)).size(), size);
    getrusage(RUSAGE_SELF, &after);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // sanitizers need more
    QVERIFY(after.ru_maxrss - before.ru_maxrss < 4'000); // kilobytes
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

void tst_engine::lateInformationRecordCostsNoFile()
{
    // The packets as they arrive, and how often the file is written. Packets a, b and c are the
    // first three of another file with the same name and length.
    const std::pair<Bytes, int> rows[] = {
        {"01023", 1}, {"020301", 1}, {"010231", 1}, {"0123023", 1}, {"01230123", 2}, {"010bc", 0}};
    const Bytes content = noise(700, 1), stream = compressed(content);
    const Bytes other = compressed(noise(700, 2));
    for (const auto &[packets, written] : rows) {
        Side side;
        QList<quint16> held; // since the last packet 0
        for (const char packet : packets) {
            const quint16 number = quint16(packet < 'a' ? packet - '0' : packet - 'a' + 1);
            const Bytes &from = packet < 'a' ? stream : other;
            if (number == 0)
                held.clear();
            side.receive(number == 0 ? information(3, "x")
                                     : data(number, from.mid(250 * (number - 1), 250)));
            held.insert(std::lower_bound(held.begin(), held.end(), number), number);
            QVERIFY2(acknowledges(side, {0, 1, 2, 3}, held, held.size()), packets);
        }
        QVERIFY2(side.received.size() == written, packets);
        QVERIFY2(side.trouble.isEmpty(), packets); // files that do not fit together are no news
        QVERIFY2(side.folder.readFile(u"in/x"_s) == (written > 0 ? content : Bytes()), packets);
    }
}

void tst_engine::unwritableFileIsTriedUntilTheNextBegins()
{
    Side side;
    const QString obstacle = side.folder.makeFolder(u"in/x"_s);
    receiveFile(side, "x", compressed("first"));
    side.receive(information(1, "next"));
    receiveFile(side, "x", compressed("second"));
    side.receivedFiles().finish(std::chrono::seconds(0)); // tries once more
    QCOMPARE(side.trouble.filter(u"trying again"_s).size(), 2);
    QCOMPARE(side.trouble.filter(u"is lost"_s).size(), 2);

    receiveFile(side, "x", compressed("third"));
    QVERIFY(QDir().rmdir(obstacle));
    receiveFile(side, "x", compressed("fourth")); // replaces the third
    side.receivedFiles().finish(std::chrono::seconds(0));
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
    ReceivedFiles &files = side.receivedFiles();
    files.workInBackground();
    TTransferData blocks = {.length = 251};
    std::ranges::copy(Bytes::fromHex("000000ffff").repeated(50), blocks.data);
    QMap<int, TTransferData> packets = {{1, {.data = {'\x78', '\xDA'}, .length = 3}}};
    for (int number = 2; number <= Packet::maxNumber; ++number)
        packets.insert(packets.cend(), number, blocks);
    for (int file = 0; file < 10; ++file)
        files.write({u"x"_s, side.folder.path(u"in/x"_s), packets});
    receiveFile(side, "y", compressed("dropped"));
    files.finish(std::chrono::seconds(0));
    QCOMPARE(side.trouble.filter(u"no time to write"_s).size(), 1);

    files.finish(std::chrono::minutes(1));
    receiveFile(side, "y", compressed("taken"));
    files.finish(std::chrono::minutes(1));
    QCOMPARE(side.received, QStringList(10, u"x"_s) << u"y"_s);
    QCOMPARE(side.folder.readFile(u"in/y"_s), "taken");
}

void tst_engine::forgetfulPeerIsToldFromASlowOne()
{
    const Bytes first = data(0, "0123"), second = data(1, "0123");
    QCOMPARE(patience({}), 301); // a silent peer
    QCOMPARE(patience({.taken = 600}), 601);
    QCOMPARE(patience({.peer = {first}}), 6); // it sends without hearing us
    QCOMPARE(patience({.taken = 600, .peer = {second}}), 601);
    QCOMPARE(patience({.taken = 600, .peer = {first, second}}), 6); // it hears us
    // It acknowledges nothing or another file.
    QCOMPARE(patience({.peer = {acknowledgement(41, {}), acknowledgement(40, {1})}}), 6);
    QCOMPARE(patience({5, 2, 1, 500, {first, second}}), 25); // it has a slow pace
    QCOMPARE(patience({5, 2, 4, 500, {first, second}}), 85); // and few answers arrive
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
    hexAfterTicks(side, 1);
    side.open(u"c.dat"_s, "c"); // abandons the other
    QCOMPARE(hexAfterTicks(side, 3).value(2), "a4d50b00000d000102b22a000200000000ff72");
    side.receive(acknowledgement(41, {0, 1}));
    QCOMPARE(side.delivered, 0);
    for (int copy = 0; copy < 2; ++copy)
        side.receive(acknowledgement(42, {7, 0, 1, 1}));
    QCOMPARE(side.delivered, 1);

    side.SendInfo(Bytes("TAGGE").data(), u"x"_s + QString(200, QChar(u'é'))); // 401 bytes
    const Bytes message = side.take().at(0);
    QCOMPARE(message.size(), 18 + 247);
    QVERIFY(message.startsWith(Bytes::fromHex("a4d50c0000010801feb45441474745f7")));
}

void tst_engine::waitsForQuietTicksAndEndsWhenStopped()
{
    Side side(3);
    side.open(u"a.dat"_s, "a");
    QList<qsizetype> sent; // with three ticks each; a request goes out twice
    for (const Bytes &arriving : {Bytes(), information(1, "x"),
             Packet::makeStatusRequest(stamp, 8, {}), acknowledgement(1, {5})}) {
        side.receive(arriving);
        sent.append(hexAfterTicks(side, 3).size());
    }
    QCOMPARE(sent, QList<qsizetype>({4, 2, 2, 4}));

    side.Stop();
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
        QMap<int, qint8> counts; // how often each packet was sent
        for (int number = 1 + random.bounded(60); number > 0; --number)
            counts[number] = 0;
        Side side;
        side.open(u"f"_s, noise(250 * counts.size() - 100, seed));
        side.receive(acknowledgement(41, {0}));
        QList<quint16> listed; // the last 25 that were sent and are not acknowledged
        for (side.tick(); !counts.isEmpty(); side.tick()) {
            const Bytes bytes = side.take().value(0);
            if (const auto packet = Packet::read(bytes); packet && packet->kind == Packet::Data) {
                const auto rarest = std::min_element(counts.begin(), counts.end());
                QCOMPARE(packet->number, rarest.key());
                ++*rarest;
                listed = (listed << packet->number).last(std::min<qsizetype>(listed.size(), 25));
            } else {
                QCOMPARE(bytes, Packet::makeStatusRequest({quint8(bytes.at(2)), 0}, 41, listed));
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
    side.receive(Packet::makeStatusRequest(stamp, 8, {}));
    QVERIFY(side.packets.isEmpty());
    QVERIFY(acknowledges(side, {3, 0, 2, 6, 3}, {0, 3, 3}, 3));

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

void tst_engine::writesWhatStreamsHoldUnderPlainNames()
{
    const Bytes whole = noise(5'000, 4), stream = compressed(whole);
    // The name, the stream, what is written (null for no file), and the lines for the operator.
    QList<std::tuple<Bytes, Bytes, Bytes, int>> rows = {{Bytes(97, '\xE9'), stream, whole, 0},
        {Bytes(98, 'n'), stream, {}, 0}, {"surplus", stream + "surplus", whole, 0},
        {"wrong checksum, so that it would look whole", stream.chopped(1) + '?', {}, 1},
        // The stream's head has 2 bytes, that of its only block 5.
        {"cut short", stream.first(3'000), whole.first(2'993), 1},
        {"no stream", "no stream", "", 1}};
    for (const Bytes &bad :
        {"../x"_ba, "/x"_ba, "sub/x"_ba, "x/"_ba, ".."_ba, ".x"_ba, ""_ba, "x\0y"_ba})
        rows.append({bad, stream, {}, 1});
    for (const auto &[name, sent, content, lines] : rows) {
        Side side;
        receiveFile(side, name, sent);
        const qsizetype files = content.isNull() ? 0 : 1, packets = (sent.size() + 249) / 250;
        const QString file = QString::fromLatin1(name);
        const Bytes row = name.toPercentEncoding();
        QVERIFY2(side.received == QStringList(files, file), row);
        QVERIFY2(side.folder.readFile(u"in/"_s + file) == content, row);
        QVERIFY2(filesBelow(side.folder.path()) == files, row);
        QVERIFY2(side.trouble.size() == lines, row);
        if (name.size() <= 97) // acknowledged all the same
            QVERIFY2(acknowledges(side, {0, 1}, {0, 1}, 1 + packets), row);
    }
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
            side.OpenFile(path);
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
        side.receivedFiles().setMaxBytes(maxBytes);
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
