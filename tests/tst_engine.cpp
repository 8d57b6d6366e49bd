#include "AnswerWatch.h"
#include "ReceivedFiles.h"
#include "kit/Channel.h"

#include <QCoreApplication>

#include <csignal>
#include <map>
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
    static QRandomGenerator sequence;
    return Packet::makeData({quint8(sequence.bounded(256)), 0}, 9, number, payload);
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

// Returns how many seconds after its last answer a peer is given up. It answers one request in so
// many until the time taken, and then sends other packets over and over until that much later.
int patience(int taken, const QList<Bytes> &others, int interval = 1, int datagrams = 20,
    int answered = 1, int until = 10'000)
{
    AnswerWatch watch;
    AnswerWatch::Clock::time_point now{std::chrono::hours(1)};
    for (int i = 0; i < 25; ++i) { // an earlier file, all about which was answered at once
        std::ignore = watch.countRequest(40, now);
        watch.received(*Packet::read(acknowledgement(40, {1})), now);
    }
    now += std::chrono::hours(1);
    for (const quint16 number : {quint16(0), quint16(1)}) // the peer has heard us
        watch.received(*Packet::read(data(number, "0123")), now);
    int time = 0, given = 0;
    for (; given == 0 && time < 2'000; time += interval) {
        now += std::chrono::seconds(interval);
        for (int i = 0; i < datagrams; ++i)
            given += watch.countRequest(41, now);
        const int since = time - taken;
        const bool isAnswered = since == 0 || (since < 0 && time / interval % answered == 0);
        for (int copy = 0; isAnswered && copy < 2; ++copy)
            watch.received(*Packet::read(acknowledgement(41, {1})), now);
        for (const Bytes &packet : since > 0 && since <= until ? others : QList<Bytes>())
            watch.received(*Packet::read(packet), now + std::chrono::seconds(interval - 1));
    }
    return given <= 1 ? time - interval - taken : -1;
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

// Runs two engines back to back until both have delivered a file. The channel loses a third of the
// packets each way, doubles some, and lets others overtake some. No late information record,
// though: it would make the receiver begin afresh.
void crossABadChannel(Side &left, Side &right)
{
    QRandomGenerator random(1);
    std::map<Side *, Bytes> overtaken; // on its way to that side
    for (int tick = 0; tick < 1'000'000 && left.delivered + right.delivered < 2; ++tick) {
        for (const auto &[from, to] : {std::pair(&left, &right), std::pair(&right, &left)}) {
            from->tick();
            for (Bytes packet : from->take()) {
                const bool isAnnouncement = packet.sliced(9, 4) == Bytes("\xB1\x29\0\0", 4);
                if (!isAnnouncement && random.bounded(2) == 0)
                    packet.swap(overtaken[to]);
                const int copies[] = {0, 0, 1, 1, 1, 2};
                for (int copy = copies[random.bounded(6)]; copy > 0; --copy)
                    to->receive(packet);
            }
        }
    }
}

volatile std::sig_atomic_t isDiskFull = false; // a write has exceeded the limit of the process

} // namespace

class tst_engine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void filesCrossABadChannelInLittleMemory();
    void acknowledgementsOfAnOldFileAreNoDelivery();
    void lateInformationRecordCostsNoFile();
    void unwritableFileIsTriedUntilTheNextBegins();
    void noFileBeginsWhileTooManyWaitToBeWritten();
    void forgetfulPeerIsToldFromASlowOne();
    void ticksGiveTheseBytes();
    void waitsForQuietTicksAndEndsWhenStopped();
    void choosesAsAWalkOverTheTableWould();
    void answersWithWhatItHoldsAndGathersAfresh();
    void writesWhatStreamsHoldUnderPlainNames();
    void takesOrRefusesFilesOfAnotherThread();
    void keepsTheOldFileUntilTheNewOneIsWhole();
    void lateTicksAreMadeUpForUpToATenthOfASecond();
};

// Comes first, because only the peak of the whole process is known.
void tst_engine::filesCrossABadChannelInLittleMemory()
{
    const qint64 size = 100'000'000;
    Side left, right;
    QFile zeros(left.folder.path(u"zeros"_s));
    QVERIFY(zeros.open(QFile::WriteOnly) && zeros.resize(size));
    rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    left.OpenFile(zeros.fileName());
    right.open(u"back"_s, noise(50'000, 1));
    crossABadChannel(left, right);
    QVERIFY(left.folder.readFile(u"in/back"_s) == noise(50'000, 1));
    QCOMPARE(QFile(right.folder.path(u"in/zeros"_s)).size(), size);
    getrusage(RUSAGE_SELF, &after);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // sanitizers need more
    QVERIFY(after.ru_maxrss - before.ru_maxrss < 4'000); // kilobytes
#endif
}

void tst_engine::acknowledgementsOfAnOldFileAreNoDelivery()
{
    // Takes the peer's own counts, the last one with all further packets. The two fields that tell
    // a negative one disagree.
    const auto endAfter = [](const std::array<int, 4> &counts, int size = 700) {
        Side side;
        side.open(u"f"_s, noise(size, 1)); // of three packets, or of 61
        for (quint16 number = 0; number < 62; ++number) {
            const int count = counts.at(std::min<size_t>(number, 3));
            Bytes packet = acknowledgement(41, {number}, count);
            packet[5] = char(packet[5] + (count < 0));
            side.receive(packet);
            side.receive(acknowledgement(41, {}, 9)); // names no packet, so it means nothing
        }
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
    QCOMPARE(endAfter({1, -1, -1, -1}), u"sent "_s);
    QCOMPARE(endAfter({1, 5, 5, 5}, 0), u"sent "_s); // an empty file is only announced
    QCOMPARE(endAfter({1, 62, 2, 2}, 15'000), u"forgotten "_s); // too early for 62
}

void tst_engine::lateInformationRecordCostsNoFile()
{
    const Bytes content = noise(700, 1), stream = compressed(content);
    const Bytes changed = noise(243, 2) + content.sliced(243, 250) + noise(207, 3);
    const Bytes other = compressed(changed);
    // The packets as they arrive: 0 to 3 of a file, a to c of another one with the same packets 0
    // and 2, and n, a packet 0 with a longer name. By "!" one more file is written, by "?" none.
    for (const Bytes &packets :
        {"01023!0?123!"_ba, "020301!"_ba, "01203!1?2?"_ba, "012013!"_ba, "0123!0?23?1!"_ba,
            "010n23?"_ba, "010abc!"_ba, "010bca!"_ba, "010bc?0a!"_ba, "02013!ac2!"_ba}) {
        Side side;
        side.receivedFiles().workInBackground();
        int written = 0;
        for (const char packet : packets) {
            const qsizetype index = QByteArrayView("0123nabc").indexOf(packet);
            const quint16 number = quint16(index % 4);
            if (index < 0) {
                written += packet == '!';
                side.receivedFiles().finish(1min);
                QVERIFY2(side.received.size() == written, packets);
            } else if (number == 0) {
                side.receive(information(3, index == 0 ? "x" : "xy"));
            } else {
                const Bytes &from = index < 4 ? stream : other;
                side.receive(data(number, from.mid(250 * (number - 1), 250)));
            }
        }
        QVERIFY2(side.trouble.isEmpty(), packets); // files that do not fit together are no news
        const Bytes last = packets.contains('a') ? changed : written > 0 ? content : Bytes();
        QVERIFY2(side.folder.readFile(u"in/x"_s) == last, packets);
    }
}

void tst_engine::unwritableFileIsTriedUntilTheNextBegins()
{
    Side side, other;
    const QString x = side.folder.makeFolder(u"in/x"_s), z = side.folder.makeFolder(u"in/z"_s);
    const QString otherX = other.folder.makeFolder(u"in/x"_s);
    ReceivedFiles &files = side.receivedFiles();
    receiveFile(side, "x", compressed("first"));
    side.receive(information(1, "x")); // late
    QVERIFY(side.trouble.filter(u"is lost"_s).isEmpty());
    side.receive(information(1, "next"));
    receiveFile(side, "x", compressed("second"));
    files.finish(0s); // tries once more
    receiveFile(side, "x", compressed("third"));
    files.write({u"y"_s, side.folder.path(u"in/y"_s), {}});
    QCOMPARE(side.trouble.filter(u"trying again"_s).size(), 3);
    QCOMPARE(side.trouble.filter(u"is lost"_s).size(), 3);

    receiveFile(side, "z", compressed("fourth"));
    QVERIFY(QDir().rmdir(z));
    files.finish(0s);
    receiveFile(side, "x", compressed("fifth"));
    QVERIFY(QDir().rmdir(x));
    receiveFile(side, "x", compressed("sixth")); // replaces the fifth
    files.finish(0s);
    QVERIFY(
        side.folder.readFile(u"in/z"_s) == "fourth" && side.folder.readFile(u"in/x"_s) == "sixth");
    receiveFile(other, "x", compressed("seventh"));
    QVERIFY(QDir().rmdir(otherX));
    QTRY_COMPARE(other.folder.readFile(u"in/x"_s), "seventh");
    QCOMPARE(other.trouble.filter(u"is written now"_s).size(), 1);
    QCOMPARE(side.trouble.filter(u"is lost"_s).size(), 3);
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
    side.folder.makeFolder(u"in/x"_s); // none of them can be written
    for (int file = 0; file < 10; ++file)
        files.write({u"x"_s, side.folder.path(u"in/x"_s), packets});
    receiveFile(side, "y", compressed("dropped"));
    files.finish(0s);
    QCOMPARE(side.trouble.filter(u"no time to write"_s).size(), 1);

    files.finish(1min);
    receiveFile(side, "y", compressed("taken"));
    files.finish(1min);
    QCOMPARE(side.trouble.filter(u"is lost"_s).size(), 10);
    QCOMPARE(side.received, QStringList(u"y"_s));
    QCOMPARE(side.folder.readFile(u"in/y"_s), "taken");
}

void tst_engine::forgetfulPeerIsToldFromASlowOne()
{
    const Bytes first = data(0, "0123"), second = data(1, "0123");
    const Bytes request = Packet::makeStatusRequest(stamp, 9, {});
    QCOMPARE(patience(1, {}), 301); // a silent peer
    QCOMPARE(patience(600, {}), 601);
    QCOMPARE(patience(-1, {first}), 2'000); // it has never answered
    QCOMPARE(patience(1, {first}), 6); // it sends without hearing us
    QCOMPARE(patience(600, {request, second}), 601);
    QCOMPARE(patience(600, {first, second}), 6); // it hears us
    // It reacts to this request only if it does so later than an answer can take.
    QCOMPARE(patience(600, {first, second}, 1, 20, 1, 1), 601);
    QCOMPARE(patience(600, {first, second}, 1, 20, 1, 2), 6);
    // It acknowledges nothing or another file.
    QCOMPARE(patience(1, {acknowledgement(41, {}), acknowledgement(40, {1})}), 6);
    QCOMPARE(patience(500, {first, second}, 5, 2), 25); // it has a slow pace
    QCOMPARE(patience(505, {first, second}, 5, 2, 4), 85); // and few answers arrive
    QCOMPARE(patience(900, {first, second}, 5, 2, 8), 105); // or very few
    QCOMPARE(patience(50, {first, second}, 5, 2), 105); // or too few yet to judge by
    QCOMPARE(patience(500, {first, second}, 5, 1), 45); // and each request leaves once
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
    side.receive(acknowledgement(41, {5}, 3)); // counts more than there are
    side.open(u"c.dat"_s, "c"); // abandons the other
    QCOMPARE(hexAfterTicks(side, 3).value(2), "a4d50b00000d000102b22a000200000000ff72");
    side.receive(acknowledgement(41, {0, 1}));
    QCOMPARE(side.delivered, 0);
    for (int copy = 0; copy < 2; ++copy)
        side.receive(acknowledgement(42, {7, 0, 1, 1}));
    QCOMPARE(side.delivered, 1);

    side.receive(Packet::makeStatusRequest(stamp, 0, {})); // the answer has another counter
    for (const QString &text : {QString(248, u'x'), u"x"_s + QString(200, QChar(u'é'))})
        side.SendInfo(Bytes("TAGGE").data(), text);
    QCOMPARE(side.packets.value(2).size(), 18 + 248);
    QCOMPARE(side.packets.value(3).size(), 18 + 247); // whole characters only
    QVERIFY(side.packets.at(3).startsWith(Bytes::fromHex("a4d50d0000010801feb45441474745f7")));
}

void tst_engine::waitsForQuietTicksAndEndsWhenStopped()
{
    Side side(3), paced(3, 0);
    side.open(u"a.dat"_s, "a");
    QList<qsizetype> sent; // with three ticks each; a request goes out twice
    for (const Bytes &arriving : {Bytes(), information(1, "x"),
             Packet::makeStatusRequest(stamp, 8, {}), acknowledgement(41, {5})}) {
        side.receive(arriving);
        sent.append(hexAfterTicks(side, 3).size());
    }
    QCOMPARE(sent, QList<qsizetype>({4, 2, 2, 4}));
    side.Stop();
    side.tick();
    side.receive(acknowledgement(41, {0, 1}));
    side.receive(data(1, "data"));
    QVERIFY(side.packets.isEmpty() && side.delivered == 0 && side.received.isEmpty());

    paced.open(u"f"_s, noise(700, 1)); // of three packets
    paced.receive(acknowledgement(41, {2}));
    paced.receive(information(1, "x"));
    QVERIFY(hexAfterTicks(paced, 2).isEmpty() && hexAfterTicks(paced, 1).size() == 4);
    paced.receive(acknowledgement(41, {0}));
    connect(&paced, &Side::SendData, &paced, [&] {
        if (paced.packets.size() == 2)
            paced.StopSending();
    });
    QTRY_COMPARE(paced.packets.size(), 2);
    QCOMPARE(Packet::read(paced.packets.at(0))->number, 1);
    QCOMPARE(Packet::read(paced.packets.at(1))->number, 3);
}

// Acknowledgements come seldom enough for the counts to wrap, and files enough for the ids.
void tst_engine::choosesAsAWalkOverTheTableWould()
{
    Side side;
    for (quint32 seed = 1; seed <= 89; ++seed) {
        const char id = char((40 + seed) % 128);
        QRandomGenerator random(seed);
        QMap<int, qint8> counts; // how often each packet was sent
        for (int number = 1 + random.bounded(60); number > 0; --number)
            counts[number] = 0;
        side.open(u"f"_s, noise(250 * counts.size() - 100, seed));
        side.receive(acknowledgement(id, {0}));
        QList<quint16> listed; // the last 25 that were sent and are not acknowledged
        for (side.tick(); !counts.isEmpty(); side.tick()) {
            const Bytes bytes = side.take().value(0);
            if (const auto packet = Packet::read(bytes); packet && packet->kind == Packet::Data) {
                const auto rarest = std::min_element(counts.begin(), counts.end());
                QCOMPARE(packet->number, rarest.key());
                ++*rarest;
                listed = (listed << packet->number).last(std::min<qsizetype>(listed.size(), 25));
            } else {
                QCOMPARE(bytes, Packet::makeStatusRequest({quint8(bytes.at(2)), 0}, id, listed));
            }
            if (random.bounded(8 << seed % 7) == 0) {
                const quint16 gone = quint16(counts.keys().at(random.bounded(counts.size())));
                side.receive(acknowledgement(id, {gone}));
                counts.remove(gone);
                listed.removeAll(gone);
            }
        }
    }
}

void tst_engine::answersWithWhatItHoldsAndGathersAfresh()
{
    Side side;
    const Bytes stream = compressed("gathered"), begin = stream.first(4), end = stream.sliced(4);
    side.receive(Packet::makeData(stamp, 8, 0, InformationRecord{3, "x"}.write()));
    side.receive(Packet::makeData(stamp, 8, 1, begin));
    side.receive(information(3, "x")); // of the next file
    side.receive(Packet::makeData(stamp, 8, 1, begin));
    for (const int number : {3, 3, 6}) // more than announced is dropped
        side.receive(data(quint16(number), end));
    side.receive(Packet::makeStatusRequest(stamp, 8, {}));
    QVERIFY(side.packets.isEmpty());
    QVERIFY(acknowledges(side, {3, 0, 2, 6, 3}, {0, 3, 3}, 2));

    side.receive(information(3, "x"));
    side.receive(Bytes::fromHex("a4d500000000000000b1090002")); // without a byte of content
    QVERIFY(acknowledges(side, {3, 2, 0}, {0, 2}, 2));
    side.receive(data(3, end));
    side.receive(data(3, end));
    QVERIFY(side.received.isEmpty());
    side.receive(data(1, begin));
    side.receive(data(1, "late"));
    side.receive(information(0, "/x")); // announced only
    QCOMPARE(side.received, QStringList(u"x"_s));
    QVERIFY(side.trouble.isEmpty() && side.folder.readFile(u"in/x"_s) == "gathered");
}

void tst_engine::writesWhatStreamsHoldUnderPlainNames()
{
    const Bytes whole = noise(5'000, 4), stream = compressed(whole);
    // The name, the stream, what is written (null for no file), and the lines for the operator.
    QList<std::tuple<Bytes, Bytes, Bytes, int>> rows = {{Bytes(97, '\xE9'), stream, whole, 0},
        {"surplus", stream + "surplus", whole, 0},
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
        QVERIFY2(acknowledges(side, {0, 1}, {0, 1}, 1 + packets), row); // all the same
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
