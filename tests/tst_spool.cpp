#include "Journal.h"
#include "LinkRecord.h"
#include "QuietSpool.h"
#include "SmallDisk.h"
#include "SpoolCensus.h"
#include "SpoolDirectory.h"
#include "SpoolLayout.h"
#include "SpoolLock.h"
#include "SpoolScan.h"
#include "WholeFile.h"
#include "Workplace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = SpoolLock::Clock;
using State = SpoolLock::State;

// A spool in a temporary directory and what was said of it.
struct Spool
{
    const Folder place;
    const QString folder = place.makeFolder(u"spool"_s);
    const QString lockPath = folder + u"/.lock"_s;
    const SpoolDirectory directory{folder};
    QStringList said;

    const MessageSink report = [this](const QString &text) { said.append(text); };
    SpoolLock waiter{directory, report};
    const Clock::time_point start = Clock::now();

    State removeIfStale(Clock::duration after) { return waiter.removeIfStale(start + after); }
    [[nodiscard]] bool writes(const QString &name, const QByteArray &content)
    {
        return directory.write(name, content, report) == SpoolDirectory::WriteResult::Written;
    }
};

} // namespace

class TestSpool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void linkRecordsAreCutFromAnyPieces();

    void onlyFilesThatCanBeSentAreListedInOrder();
    void onlyPlainNamesAreWritten();
    void leftoversGoWhenNoWriterIsAtWork();
    void spoolIsQuietWhileNothingWaits();
    void journalKeepsWhatIsNotFree();
    void fileIsTheSameWhateverItsNumber();

    void staleLockIsRemoved();
    void lockOfAKilledWriterIsRemovedAtOnce();
    void longWaitIsSaidOnce();
    void staleLockPassesToOneWaiter();
};

// --- records ---

void TestSpool::linkRecordsAreCutFromAnyPieces()
{
    const QByteArray stream =
        LinkRecord::make("errorx") + LinkRecord::make("") + LinkRecord::make(LinkRecord::keepAlive);
    QCOMPARE(stream, QByteArray::fromHex("06000000 6572726f7278 00000000 04000000 6c697665"));
    const auto cutBytewise = [](auto &reader, const QByteArray &bytes) {
        QList<typename decltype(reader.next())::value_type> pieces;
        for (const char byte : bytes) {
            reader.append(QByteArray(1, byte));
            while (const auto piece = reader.next())
                pieces.append(*piece);
        }
        return pieces;
    };
    LinkRecord::Reader reader;
    QCOMPARE(cutBytewise(reader, stream), QByteArrayList({"errorx", "", "live"}));
    QVERIFY(reader.isAtRecordBoundary());
    reader.append(QByteArray::fromHex("ffffffff 41"));
    QVERIFY(!reader.next());
    QCOMPARE(reader.refusedLength(), 0xFFFFFFFFu);

    LinkRecord::AcknowledgementReader numbers;
    const auto bytes = QByteArray::fromHex("0201000000000000 ffffffffffffffff 07");
    QCOMPARE(cutBytewise(numbers, bytes), QList<quint64>({0x102, ~quint64(0)}));
    QCOMPARE(LinkRecord::acknowledgement(0x102), QByteArray::fromHex("0201000000000000"));
}

// --- files ---

void TestSpool::onlyFilesThatCanBeSentAreListedInOrder()
{
    Spool spool;
    const QStringList order = {u"10"_s, u"9"_s, u"_x"_s, u"AB"_s, u"Ab"_s, u"aB"_s, u"ab"_s, u"B"_s,
        u"Ж"_s, u"я"_s, u"😀"_s, u"ﬁ"_s, u"ﬁ.link"_s};
    for (qsizetype i = 0; i < order.size() - 1; ++i)
        QVERIFY(spool.writes(order.at((i * 5) % (order.size() - 1)), "x"));
    QVERIFY(QFile::link(u"9"_s, spool.directory.pathOf(order.last())));
    QVERIFY(QFile::link(u"nowhere"_s, spool.directory.pathOf(u"broken"_s)));
    spool.place.writeFile(u"spool/.hidden"_s, "x");
    spool.place.makeFolder(u"spool/folder"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(spool.directory.pathOf(u"fifo"_s)).constData(), 0600), 0);
    QVERIFY(QFile::link(u"fifo"_s, spool.directory.pathOf(u"to_fifo"_s)));
    const QByteArrayList foreign = {"/\xff\xfe", "/\xef\xbb\xbf\x31"}; // a byte order mark and "1"
    for (const QByteArray &name : foreign)
        QCOMPARE(::mknod((spool.folder.toUtf8() + name).constData(), S_IFREG | 0600, 0), 0);

    QStringList inParts, oneByOne;
    for (bool isMore = true; isMore && inParts.size() < order.size();) {
        SpoolScan scan(spool.directory, inParts.value(inParts.size() - 1).toUtf8(), 50); // bytes
        QVERIFY(scan.readUntil(QDeadlineTimer::Forever));
        isMore = scan.isCutOff();
        for (SpoolListing part = scan.takeNames(); !part.isEmpty(); part.removeFirst())
            inParts += part.first();
    }
    QCOMPARE(inParts, order);
    for (SpoolListing rest = spool.directory.list(); !rest.isEmpty(); rest.removeFirst()) {
        const auto [name, hasForeign] =
            spool.directory.first([&](const QString &n) { return oneByOne.contains(n); });
        oneByOne += name;
        QVERIFY(hasForeign);
    }
    QCOMPARE(oneByOne, order);

    const QString refused = spool.place.writeFile(u"spool/refused"_s, "no folder");
    QVERIFY(!spool.directory.setForeignNamesAside(spool.report, true));
    QVERIFY(!spool.directory.setForeignNamesAside(spool.report, false));
    QCOMPARE(spool.said.filter(u"Can't move file "_s).size(), foreign.size());
    QVERIFY(QFile::remove(refused));
    QVERIFY(spool.directory.setForeignNamesAside(spool.report, false));
    for (const QByteArray &name : foreign) // QTemporaryDir cannot remove them
        QCOMPARE(::unlink((spool.folder.toUtf8() + "/refused" + name).constData()), 0);
    QCOMPARE(spool.said.filter(u"1: its name is no UTF-8 text"_s),
        QStringList(u"Refused file %1/%EF%BB%BF1: its name is no UTF-8 text"_s.arg(spool.folder)));
    const SpoolFile opened = spool.directory.open(u"9"_s);
    QCOMPARE(spool.directory.open(order.last()).read(), QByteArray("x"));
    QVERIFY(QFile::resize(spool.directory.pathOf(u"9"_s), 0));
    QCOMPARE(opened.read(), QByteArray());
    QVERIFY(QFile::resize(spool.directory.pathOf(u"10"_s), 5'000'000'000)); // more than a record
    for (const QString &name : {u"to_fifo"_s, u"folder"_s, u"broken"_s, u"10"_s})
        QVERIFY2(!spool.directory.open(name).isOpen(), qPrintable(name));
}

void TestSpool::onlyPlainNamesAreWritten()
{
    Spool spool;
    spool.place.makeFolder(u"spool/sub"_s);
    for (const QString &name : {u""_s, u"sub"_s, u".."_s, u".lock"_s, u"../x"_s, u"sub/x"_s,
             u"x/"_s, u"a\0b"_s, u"half a character "_s + QChar(0xD800), QString(256, u'n')})
        QVERIFY2(!spool.writes(name, "x"), qPrintable(name));
    {
        const FileLimit limit(50'000); // the first half of the record fits
        QVERIFY(!spool.writes(u"large"_s, QByteArray(100'000, 'x')));
    }
    QCOMPARE(filesBelow(spool.place.path()), 0);
    QVERIFY(spool.writes(u"good"_s, "a longer one") && spool.writes(u"good"_s, "short"));
    QCOMPARE(spool.place.readFile(u"spool/good"_s), "short");
}

void TestSpool::leftoversGoWhenNoWriterIsAtWork()
{
    Spool spool;
    const QString leftover = spool.place.writeFile(u"spool/.incoming-1-f"_s, "half of a file");
    WholeFile living(spool.directory.pathOf(u"received"_s));
    QVERIFY(living.write("whole"));
    QCOMPARE(filesBelow(spool.folder), 2);
    removeLeftoversOfTheDead(spool.folder);
    QVERIFY(filesBelow(spool.folder) == 1 && !QFile::exists(leftover));
    QVERIFY(living.commit(WholeFile::Flush::Yes));
    removeLeftoversOfTheDead(spool.folder);
    QCOMPARE(spool.place.readFile(u"spool/received"_s), "whole");

    spool.place.writeFile(leftover, "half of a file");
    SpoolLock writer(spool.directory, spool.report);
    QVERIFY(writer.tryAcquire());
    QVERIFY(!spool.directory.removeLeftovers(spool.waiter) && QFile::exists(leftover));
    writer.release();
    QVERIFY(spool.directory.removeLeftovers(spool.waiter) && !QFile::exists(leftover));
    spool.place.makeFolder(leftover); // cannot be removed
    QVERIFY(!spool.directory.removeLeftovers(spool.waiter));
    QVERIFY(!QFile::exists(spool.lockPath));
}

void TestSpool::spoolIsQuietWhileNothingWaits()
{
    const Spool spool;
    spool.place.makeFolder(u"spool/folder"_s);
    QuietSpool quiet(spool.directory);
    for (const QString &name : {u"f"_s, u".lock"_s}) {
        QVERIFY(quiet.isQuiet());
        const QString file = spool.place.writeFile(u"spool/"_s + name, "x");
        QVERIFY2(!quiet.isQuiet(), qPrintable(name));
        QVERIFY(QFile::remove(file));
    }
    QTest::qWait(4'001); // a look trusts the times of the folder now
    QVERIFY(quiet.isQuiet() && quiet.isQuiet());
    QVERIFY(quiet.canHold(QByteArray(255, 'n')) && !quiet.canHold(QByteArray(256, 'n')));
    QVERIFY(!quiet.canHold("folder"));
    setAge(spool.place.writeFile(u"spool/f"_s, "123"), 60s);
    QVERIFY(!quiet.isQuiet());

    spool.place.writeFile(u"spool/g"_s, "4");
    const SpoolCensus census = SpoolCensus::take(spool.directory, {});
    QCOMPARE(census.files, 2);
    QCOMPARE(census.bytes, 4);
    QVERIFY(QDateTime::currentSecsSinceEpoch() - census.oldest >= 60);
}

// Four rounds of the ring, which stays full.
void TestSpool::journalKeepsWhatIsNotFree()
{
    const Folder place;
    const Descriptor folder(::open(qPrintable(place.path()), O_RDONLY | O_DIRECTORY));
    Journal journal;
    QVERIFY(journal.create(folder.get()));
    QList<std::pair<QByteArray, quint64>> kept; // contents and ends
    for (int number = 0; number < 500; ++number) {
        // 128 of the first ones fill the ring exactly, and some are written together.
        const int size = number < 300 ? 65'503 : 60'000 + 97 * number % 5'000;
        const QByteArray content(size, char(number));
        for (; !journal.hasRoomFor(1, content.size()); kept.removeFirst())
            journal.free(kept.first().second);
        kept.append({content, journal.add("n", number, "", content)});
        QVERIFY(number % 3 != 1 || journal.commit());
    }
    QFile file(place.path(QLatin1StringView(SpoolLayout::journalFile)));
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.seek(file.readAll().indexOf(kept.takeAt(5).first) + 30'000));
    QVERIFY(file.putChar('?') && file.flush()); // a damaged record counts as none
    Journal left;
    QVERIFY(left.open(folder.get()) && kept.size() > 100);
    QVERIFY(left.forEach([&](const Journal::Entry &entry) {
        return !kept.isEmpty() && entry.content == kept.takeFirst().first;
    }));
    QVERIFY(kept.isEmpty());
}

void TestSpool::fileIsTheSameWhateverItsNumber()
{
    using Removal = SpoolDirectory::Removal;
    // Whether a new file of the name counts as the old one, what its removal returns and leaves.
    const auto replace = [](std::chrono::seconds age, std::chrono::seconds later) {
        Spool spool;
        const QString path = spool.place.writeFile(u"spool/f"_s, "x");
        setAge(path, age);
        const auto before = spool.directory.mark(u"f"_s);
        const auto time = std::filesystem::last_write_time(path.toStdString());
        const bool isWritten = spool.writes(u"f"_s, "y");
        std::filesystem::last_write_time(path.toStdString(), time + later);
        const bool isSame = before == spool.directory.mark(u"f"_s);
        const Removal removal = spool.directory.remove(u"f"_s, before.value());
        return QVariantList{isWritten, isSame, int(removal), spool.place.readFile(path)};
    };
    const QVariantList same = {true, true, int(Removal::Removed), QByteArray()};
    const QVariantList another = {true, false, int(Removal::Replaced), QByteArray("y")};
    QCOMPARE(replace(60s, 0s), same);
    QCOMPARE(replace(60s, 1s), another);
    QCOMPARE(replace(0s, 0s), another); // just written: two files may have one time
}

// --- the lock ---

void TestSpool::staleLockIsRemoved()
{
    // The state of a lock seen for so long, whether its file is left, and what was said.
    const auto look = [](std::chrono::seconds age, std::chrono::seconds waited) {
        Spool spool;
        setAge(spool.place.writeFile(u"spool/.lock"_s, {}), age);
        std::ignore = spool.removeIfStale(0s);
        const State state = spool.removeIfStale(waited);
        const auto removals = spool.said.filter(u"Removed the lock file"_s).size();
        return QVariantList{state == State::Free, QFile::exists(spool.lockPath), removals};
    };
    const QVariantList kept = {false, true, 0}, removed = {true, false, 1};
    QCOMPARE(look(25s, 0s), kept);
    QCOMPARE(look(35s, 0s), removed);
    QCOMPARE(look(-3'600s, 29s), kept); // from the future, not seen for long enough
    QCOMPARE(look(-3'600s, 31s), removed);

    const Spool spool;
    spool.place.makeFolder(u"spool/.lock/full"_s); // cannot be removed, and nothing hangs
    setAge(spool.lockPath, 60s);
    QCOMPARE(spool.directory.write(u"f"_s, "x", spool.report), SpoolDirectory::WriteResult::NoLock);
}

void TestSpool::lockOfAKilledWriterIsRemovedAtOnce()
{
    Spool spool;
    const QString left = spool.place.path(u"left"_s);
    {
        SpoolLock writer(spool.directory, spool.report);
        QVERIFY(writer.tryAcquire());
        QCOMPARE(QFileInfo(spool.lockPath).size(), 0);
        QCOMPARE(spool.removeIfStale(0s), State::Held);
        QCOMPARE(spool.removeIfStale(20s), State::Held); // it lives
        QCOMPARE(::link(qPrintable(spool.lockPath), qPrintable(left)), 0);
    }
    QVERIFY(QFile::rename(left, spool.lockPath)); // as if the writer had not removed it
    QCOMPARE(spool.removeIfStale(21s), State::Held);
    QCOMPARE(spool.removeIfStale(21s + 11ms), State::Free);
    QVERIFY(spool.said.last().endsWith(u"its writer was killed"_s));
}

void TestSpool::longWaitIsSaidOnce()
{
    Spool spool;
    for (const auto after : {0s, 1s, 2s, 40s}) {
        // Writers come and go: each has a lock of its own.
        setAge(spool.place.writeFile(u"spool/.lock"_s, {}), -after);
        QCOMPARE(spool.removeIfStale(after), State::Held);
        QCOMPARE(spool.said.size(), after > 1s ? 1 : 0);
    }
}

void TestSpool::staleLockPassesToOneWaiter()
{
    Spool spool;
    {
        SpoolLock slow(spool.directory, spool.report);
        QVERIFY(slow.acquire());
        setAge(spool.lockPath, 60s);
        Descriptor other(::open(qPrintable(spool.folder), O_RDONLY)); // of a waiter that removes it
        QCOMPARE(::flock(other.get(), LOCK_EX), 0);
        QCOMPARE(spool.waiter.removeIfStale(), State::Held);
        QCOMPARE(::flock(other.get(), LOCK_UN), 0);
        QVERIFY(spool.waiter.acquire());
    }
    QVERIFY(QFile::exists(spool.lockPath)); // slow has left it alone
}

QTEST_GUILESS_MAIN(TestSpool)
#include "tst_spool.moc"
