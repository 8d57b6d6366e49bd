#include "Journal.h"
#include "KeptRecords.h"
#include "LinkRecord.h"
#include "QuietSpool.h"
#include "SentFolder.h"
#include "SmallDisk.h"
#include "SpoolCensus.h"
#include "SpoolDirectory.h"
#include "SpoolLock.h"
#include "SpoolScan.h"
#include "WholeFile.h"
#include "Workplace.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

// What the stand-ins below do in place of functions of the C library.
static bool isFlushFailing = false, isOldDisk = false;
static int flushes = 0;

int fdatasync(int)
{
    ++flushes;
    errno = EIO;
    return isFlushFailing ? -1 : 0;
}

int fsync(int) __attribute__((alias("fdatasync")));

int renameat2(int from, const char *name, int to, const char *newName, unsigned flags) noexcept
{
    return int(::syscall(SYS_renameat2, from, name, to, newName, isOldDisk && flags ? ~0U : flags));
}

int fstatvfs(int, struct statvfs *disk) noexcept
{
    *disk = {};
    disk->f_frsize = disk->f_bavail = 800; // bytes and their number: the ring gets an eighth
    return 0;
}

namespace {

using Clock = SpoolLock::Clock;
using State = SpoolLock::State;

// A spool in a temporary directory and what was said of it.
struct Spool : Folder, SpoolDirectory
{
    Spool()
        : SpoolDirectory(makeFolder(u"spool"_s))
    {
    }
    using SpoolDirectory::path;

    const QString lockPath = pathOf(u".lock"_s);
    QStringList said;
    const MessageSink report = [this](const QString &text) { said.append(text); };
    SpoolLock waiter{*this, report};
    const Clock::time_point start = Clock::now();

    State removeIfStale(Clock::duration after) { return waiter.removeIfStale(start + after); }
    [[nodiscard]] bool writes(const QString &name, const QByteArray &content)
    {
        return write(name, content, report) == WriteResult::Written;
    }
};

// A journal with a small ring, because the disk is nearly full.
struct SmallJournal : Folder, Journal
{
    const Descriptor place{::open(qPrintable(path()), O_RDONLY | O_DIRECTORY)};
    const bool isMade = create(place.get());

    // What the file holds, the newest first.
    [[nodiscard]] QByteArrayList left() const { return keptRecords(path()).values(); }
};

} // namespace

class TestSpool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void linkRecordsAreCutFromAnyPieces();

    void filesAreListedInOrder();
    void whatCannotBeSentIsSetAside();
    void onlyPlainNamesAreWritten();
    void leftoversGoWhenNoWriterIsAtWork();
    void spoolIsQuietWhileNothingWaits();
    void journalKeepsWhatIsNotFree();
    void damageToAJournalIsNoticed();
    void fileIsTheSameWhateverItsNumber();
    void filesOnTheirWayHaveAFolder();

    void staleLockIsRemovedByOneWaiter();
    void lockOfALivingWriterIsWaitedFor();
};

void TestSpool::linkRecordsAreCutFromAnyPieces()
{
    const QByteArray stream =
        LinkRecord::make("errorx") + LinkRecord::make("") + LinkRecord::make(LinkRecord::keepAlive);
    QCOMPARE(stream, QByteArray::fromHex("06000000 6572726f7278 00000000 04000000 6c697665"));
    LinkRecord::Reader reader;
    QByteArrayList bodies;
    for (const char byte : stream) {
        reader.append(QByteArray(1, byte));
        while (const auto body = reader.next())
            bodies.append(*body);
    }
    QCOMPARE(bodies, QByteArrayList({"errorx", "", "live"}));
    QVERIFY(reader.isAtRecordBoundary());
    reader.append(QByteArray::fromHex("ffffffff 41"));
    QVERIFY(!reader.next() && reader.refusedLength() == 0xFFFFFFFFu);
    LinkRecord::AcknowledgementReader numbers;
    numbers.append(QByteArray::fromHex("0201000000000000 ffffffffffffffff 07"));
    QVERIFY(numbers.next() == 0x102u && numbers.next() == ~quint64(0) && !numbers.next());
    QCOMPARE(LinkRecord::acknowledgement(0x102), QByteArray::fromHex("0201000000000000"));
}

void TestSpool::filesAreListedInOrder()
{
    Spool spool;
    const QStringList order = u"10 9 _x AB Ab aB ab B Ж я 😀 ﬁ ﬁ.link"_s.split(u' ');
    for (qsizetype i = 0; i < order.size() - 1; ++i)
        QVERIFY(spool.writes(order.at((i * 5) % (order.size() - 1)), "x"));
    spool.writeFile(u"spool/.hidden"_s, "x");
    spool.makeFolder(u"spool/folder"_s);
    QCOMPARE(::mkfifo(spool.encodedPathOf("fifo"), 0600), 0);
    QVERIFY(QFile::link(u"9"_s, spool.pathOf(order.last())));
    QVERIFY(QFile::link(u"fifo"_s, spool.pathOf(u"to_fifo"_s)));

    QStringList inParts, oneByOne;
    for (bool isMore = true; isMore && inParts.size() < order.size();) {
        SpoolScan scan(spool, inParts.value(inParts.size() - 1).toUtf8(), 50); // bytes
        QVERIFY(scan.readUntil(QDeadlineTimer::Forever));
        isMore = scan.isCutOff();
        for (SpoolListing part = scan.takeNames(); !part.isEmpty(); part.removeFirst())
            inParts += part.first();
    }
    QCOMPARE(inParts, order);
    for (SpoolListing rest = spool.list(); !rest.isEmpty(); rest.removeFirst())
        oneByOne += spool.first([&](const QString &name) { return oneByOne.contains(name); }).name;
    QCOMPARE(oneByOne, order);
}

void TestSpool::whatCannotBeSentIsSetAside()
{
    Spool spool;
    const QByteArrayList foreign = {"\xff\xfe", "\xef\xbb\xbf\x31"}; // a byte order mark and "1"
    for (const QByteArray &name : foreign)
        QCOMPARE(::mknod(spool.encodedPathOf(name), S_IFREG | 0600, 0), 0);
    QCOMPARE(::mkdir(spool.encodedPathOf("\xff"), 0700), 0);
    const auto [name, hasForeign] = spool.first([](const QString &) { return false; });
    QVERIFY(name.isEmpty() && hasForeign && spool.list().isEmpty());

    const QString refused = spool.writeFile(u"spool/refused"_s, "no folder");
    QVERIFY(!spool.setForeignNamesAside(spool.report, true));
    QVERIFY(!spool.setForeignNamesAside(spool.report, false));
    QCOMPARE(spool.said.filter(u"Can't move file "_s).size(), foreign.size());
    QVERIFY(QFile::remove(refused) && spool.setForeignNamesAside(spool.report, false));
    QCOMPARE(spool.said.filter(u"1: its name is no UTF-8 text"_s),
        QStringList(u"Refused file %1/%EF%BB%BF1: its name is no UTF-8 text"_s.arg(spool.path())));
    for (const QByteArray &left : foreign) // QTemporaryDir cannot remove them
        QCOMPARE(::unlink(spool.encodedPathOf("refused/" + left)), 0);
    QCOMPARE(::rmdir(spool.encodedPathOf("\xff")), 0); // a folder stays

    for (int i = 0; i < 3; ++i)
        QVERIFY(spool.writes(u"f"_s, "x") && spool.setAside(u"f"_s) == Spool::SetAside::Moved);
    QCOMPARE(QDir(refused).entryList(QDir::Files), u"f f.1 f.2"_s.split(u' '));
    QCOMPARE(spool.setAside(u"f"_s), Spool::SetAside::Gone);
}

void TestSpool::onlyPlainNamesAreWritten()
{
    Spool spool;
    spool.makeFolder(u"spool/sub"_s);
    for (const QString &name : {u""_s, u"sub"_s, u".."_s, u".lock"_s, u"../x"_s, u"sub/x"_s,
             u"x/"_s, u"a\0b"_s, u"half a character "_s + QChar(0xD800), QString(256, u'n')})
        QVERIFY2(!spool.writes(name, "x"), qPrintable(name));
    {
        const FileLimit limit(50'000); // the first half of the record fits
        QVERIFY(!spool.writes(u"large"_s, QByteArray(100'000, 'x')));
    }
    QCOMPARE(filesBelow(spool.pathOf(u".."_s)), 0);
    QVERIFY(spool.writes(u"good"_s, "a longer one") && spool.writes(u"good"_s, "short"));
    QVERIFY(QFile::link(u"good"_s, spool.pathOf(u"link"_s)));
    const SpoolFile opened = spool.open(u"link"_s);
    QCOMPARE(spool.open(u"link"_s).read(), QByteArray("short"));
    QVERIFY(QFile::resize(spool.pathOf(u"good"_s), 0));
    QCOMPARE(opened.read(), QByteArray());

    QCOMPARE(::mkfifo(spool.encodedPathOf("fifo"), 0600), 0);
    for (const QString &name : {u"fifo"_s, u"sub"_s, u"absent"_s})
        QVERIFY2(!spool.open(name).isOpen(), qPrintable(name));
}

void TestSpool::leftoversGoWhenNoWriterIsAtWork()
{
    Spool spool;
    const QString leftover = spool.writeFile(u"spool/.incoming-1-f"_s, "half of a file");
    for (const bool isFailing : {true, false}) {
        WholeFile living(spool.pathOf(u"received"_s));
        QVERIFY(living.write("whole"));
        removeLeftoversOfTheDead(spool.path());
        QVERIFY(filesBelow(spool.path()) == 1 && !QFile::exists(leftover));
        isFlushFailing = isFailing;
        QCOMPARE(living.commit(WholeFile::Flush::Yes), !isFailing);
    }
    QCOMPARE(flushes, 3); // the last one of the folder
    removeLeftoversOfTheDead(spool.path());
    QCOMPARE(spool.readFile(u"spool/received"_s), "whole");

    spool.writeFile(leftover, "half of a file");
    SpoolLock writer(spool, spool.report);
    QVERIFY(writer.tryAcquire());
    QVERIFY(!spool.removeLeftovers(spool.waiter) && QFile::exists(leftover));
    writer.release();
    QVERIFY(spool.removeLeftovers(spool.waiter) && !QFile::exists(leftover));
    spool.makeFolder(leftover); // cannot be removed
    QVERIFY(!spool.removeLeftovers(spool.waiter) && !QFile::exists(spool.lockPath));
}

void TestSpool::spoolIsQuietWhileNothingWaits()
{
    const Spool spool;
    spool.makeFolder(u"spool/folder"_s);
    QuietSpool quiet(spool);
    for (const QString &name : {u"f"_s, u".lock"_s}) {
        QVERIFY(quiet.isQuiet());
        const QString file = spool.writeFile(u"spool/"_s + name, "x");
        QVERIFY2(!quiet.isQuiet(), qPrintable(name));
        QVERIFY(QFile::remove(file));
    }
    QTest::qWait(4'001); // a look trusts the times of the folder now
    QVERIFY(quiet.isQuiet() && quiet.isQuiet());
    QVERIFY(quiet.canHold(QByteArray(255, 'n')) && !quiet.canHold(QByteArray(256, 'n')));
    QVERIFY(!quiet.canHold("folder"));
    setAge(spool.writeFile(u"spool/f"_s, "123"), 60s);
    QVERIFY(!quiet.isQuiet());

    spool.writeFile(u"spool/g"_s, "4");
    const SpoolCensus census = SpoolCensus::take(spool, {});
    QVERIFY(census.files == 2 && census.bytes == 4);
    QVERIFY(QDateTime::currentSecsSinceEpoch() - census.oldest >= 60);
}

void TestSpool::journalKeepsWhatIsNotFree()
{
    SmallJournal journal;
    QVERIFY(journal.isMade && filesBelow(journal.path()) == 1);
    QByteArrayList kept; // the newest first, as are the ends
    QList<quint64> ends;
    for (int number = 0; number < 2'000; ++number) { // the ring stays full for 16 rounds
        const QByteArray content(number * 97 % 1'000, char(number));
        for (; !journal.hasRoomFor(1, content.size()); kept.removeLast())
            journal.free(ends.takeLast());
        kept.prepend(content);
        ends.prepend(journal.add("n", number, "", content));
        if (number % 3 == 0) { // the others are written together
            QVERIFY(journal.commit());
            QCOMPARE(journal.left(), kept);
        }
    }
    QVERIFY(kept.size() > 100 && kept.size() < 200);
}

void TestSpool::damageToAJournalIsNoticed()
{
    SmallJournal journal;
    for (const char *content : {"first", "second", "third"}) // 64 bytes each
        journal.add("n", 1, "", content);
    QVERIFY(journal.commit());
    QFile file(journal.path(QLatin1StringView(SpoolLayout::journalFile)));
    QVERIFY(file.open(QIODevice::ReadWrite | QIODevice::Unbuffered));
    // Bytes of the magic, the version, the size of the ring, and of the second record.
    for (const int at : {0, 4, 15, 4'096 + 64 + 35}) {
        const char byte = file.readAll().at(at);
        QVERIFY(file.seek(at) && file.putChar('\x7f'));
        QCOMPARE(journal.left(), at < 64 ? QByteArrayList() : QByteArrayList({"third", "first"}));
        QVERIFY(file.seek(at) && file.putChar(byte) && file.seek(0));
    }
    {
        const FileLimit limit(4'096 + 3 * 64 + 40); // half of a record fits
        journal.add("n", 1, "", "fourth");
        QVERIFY(!journal.commit() && !journal.hasRoomFor(1, 1));
    }
    QVERIFY(file.remove() && journal.create(journal.place.get()) && journal.hasRoomFor(1, 1));
}

void TestSpool::fileIsTheSameWhateverItsNumber()
{
    using Removal = Spool::Removal;
    // Two files that are just written may have one time.
    for (const auto &[content, age, later, isSame] : {std::tuple{"equal", 60s, 0ms, true},
             {"newer", 60s, 1ms, false}, {"hasty", 0s, 0ms, false}, {"longer", 60s, 0ms, false}}) {
        for (const bool isOld : {true, false}) {
            isOldDisk = isOld;
            Spool spool;
            const QString path = spool.writeFile(u"spool/f"_s, "first");
            setAge(path, age);
            const auto before = spool.mark(u"f"_s);
            const auto time = std::filesystem::last_write_time(path.toStdString());
            QVERIFY(spool.writes(u"f"_s, content));
            std::filesystem::last_write_time(path.toStdString(), time + later);
            QVERIFY2((before == spool.mark(u"f"_s)) == isSame, content);
            const Removal removal = spool.remove(u"f"_s, before.value());
            QVERIFY2(removal == (isSame ? Removal::Removed : Removal::Replaced), content);
            QCOMPARE(spool.readFile(path), isSame ? "" : content);
            QVERIFY2(filesBelow(spool.path()) == (isSame ? 0 : 1), content);
            QCOMPARE(spool.remove(u"gone"_s, before.value()), Removal::Removed);
        }
    }
}

void TestSpool::filesOnTheirWayHaveAFolder()
{
    Spool spool;
    const QString path = spool.pathOf(u"f"_s);
    SentFolder sent(spool);
    QVERIFY(sent.open() && QDir(spool.pathOf(QFile::decodeName(sent.name()))).removeRecursively());
    const auto take = [&] { return sent.take(u"f"_s, spool.mark(u"f"_s).value(), "one"); };
    isOldDisk = true;
    for (const auto age : {20s, 40s}) { // the newer file stands
        setAge(spool.writeFile(path, "one"), 30s);
        QCOMPARE(take(), SentFolder::Take::Taken);
        setAge(spool.writeFile(path, "other"), age);
        QVERIFY(sent.giveBack(u"f"_s));
        QCOMPARE(spool.readFile(path), age < 30s ? "other" : "one");
    }
    isOldDisk = false;
    QVERIFY(QFile::rename(path, spool.pathOf(u"../else"_s)) && QFile::link(u"../else"_s, path));
    QCOMPARE(take(), SentFolder::Take::Taken);
    QVERIFY(std::remove(spool.encodedPathOf(sent.name() + "/f")) == 0 && sent.giveAllBack());
}

void TestSpool::staleLockIsRemovedByOneWaiter()
{
    for (const auto &[row, age, waited, isStale] : {std::tuple{"new", 25s, 0s, false},
             {"old", 35s, 0s, true}, {"from the future, not seen for long enough", -1h, 29s, false},
             {"from the future", -1h, 31s, true}}) {
        Spool spool;
        setAge(spool.writeFile(u"spool/.lock"_s, {}), age);
        std::ignore = spool.removeIfStale(0s);
        QVERIFY2((spool.removeIfStale(waited) == State::Free) == isStale, row);
        QVERIFY2(QFile::exists(spool.lockPath) != isStale, row);
        QVERIFY2(spool.said.filter(u"Removed the lock file"_s).size() == isStale, row);
    }

    Spool spool;
    {
        SpoolLock slow(spool, spool.report);
        QVERIFY(slow.acquire());
        setAge(spool.lockPath, 60s);
        Descriptor other(::open(qPrintable(spool.path()), O_RDONLY)); // of a waiter that removes it
        QCOMPARE(::flock(other.get(), LOCK_EX), 0);
        QCOMPARE(spool.waiter.removeIfStale(), State::Held);
        QCOMPARE(::flock(other.get(), LOCK_UN), 0);
        QVERIFY(spool.waiter.acquire());
    }
    QVERIFY(QFile::remove(spool.lockPath)); // slow has left it alone
    spool.makeFolder(u"spool/.lock/full"_s); // cannot be removed, and nothing hangs
    setAge(spool.lockPath, 60s);
    QCOMPARE(spool.write(u"f"_s, "x", spool.report), Spool::WriteResult::NoLock);
}

void TestSpool::lockOfALivingWriterIsWaitedFor()
{
    Spool spool;
    for (const auto after : {-9s, 0s, 1s, 2s, 40s}) {
        // Writers come and go: each has a lock of its own.
        setAge(spool.writeFile(u"spool/.lock"_s, {}), -after);
        QCOMPARE(spool.removeIfStale(after), State::Held);
        QCOMPARE(spool.said.size(), after > 1s ? 1 : 0);
        if (after < 0s) // nobody waits for a while
            QVERIFY(QFile::remove(spool.lockPath) && spool.removeIfStale(after) == State::Free);
    }
    QVERIFY(QFile::remove(spool.lockPath));

    const QString left = spool.pathOf(u"../left"_s);
    {
        SpoolLock writer(spool, spool.report);
        QVERIFY(writer.tryAcquire());
        QCOMPARE(QFileInfo(spool.lockPath).size(), 0);
        QCOMPARE(spool.removeIfStale(50s), State::Held);
        QCOMPARE(spool.removeIfStale(70s), State::Held); // it lives
        QCOMPARE(::link(qPrintable(spool.lockPath), qPrintable(left)), 0);
    }
    QVERIFY(QFile::rename(left, spool.lockPath)); // as if the writer had not removed it
    QCOMPARE(spool.removeIfStale(71s), State::Held);
    setAge(spool.lockPath, 1s); // it is another writer's, who has not locked it yet
    QCOMPARE(spool.removeIfStale(71s + 11ms), State::Held);
    QCOMPARE(spool.removeIfStale(71s + 22ms), State::Free);
    QVERIFY(spool.said.last().endsWith(u"its writer was killed"_s));
}

QTEST_GUILESS_MAIN(TestSpool)
#include "tst_spool.moc"
