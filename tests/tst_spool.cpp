#include "Journal.h"
#include "Record.h"
#include "SpoolDirectory.h"
#include "Workplace.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

QByteArray hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

void setAge(const QString &path, std::chrono::seconds age)
{
    using Time = std::filesystem::file_time_type;
    std::filesystem::last_write_time(path.toStdString(), Time::clock::now() - age);
}

// A spool in a temporary directory and what was said of it.
struct Spool
{
    const Folder place;
    const QString folder = place.makeFolder(u"spool"_s);
    const QString lockPath = folder + u"/.lock"_s;
    const SpoolDirectory directory{folder};
    QStringList said;

    const MessageSink report = [this](const QString &text) { said.append(text); };

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
    void dataRecordsAreWrittenExactlyAndReadLeniently();
    void linkRecordsAreCutFromAnyPieces();

    void onlyFilesThatCanBeSentAreListedInOrder();
    void onlyPlainNamesAreWritten();
    void onlyTheDeadLeaveLeftovers();
    void leftoverThatStaysKeepsNoLock();
    void journalKeepsWhatIsNotFree();
    void fileIsTheSameWhateverItsNumber_data();
    void fileIsTheSameWhateverItsNumber();

    void staleLockIsRemoved_data();
    void staleLockIsRemoved();
    void lockOfAKilledWriterIsRemovedAtOnce();
    void longWaitIsSaidOnce();
    void lockThatCannotBeRemovedDoesNotHang();
    void ownerOfABrokenLockLeavesTheNextOneAlone();
    void onlyOneWaiterRemovesAStaleLock();
};

// --- records ---

void TestSpool::dataRecordsAreWrittenExactlyAndReadLeniently()
{
    const QByteArray bytes = hex("00000006 74656D706462 00000004 00660031 00000002 4142");
    QCOMPARE(DataRecord({"tempdb", u"f1"_s, "AB"}).write().toHex(), bytes.toHex());
    for (qsizetype length = 0; length <= bytes.size(); ++length) {
        const QByteArray cut = bytes.left(length);
        const DataRecord record = DataRecord::read(cut);
        QCOMPARE(record.isAccepted(), length >= 10);
        QCOMPARE(record.fileName, length >= 18 ? u"f1"_s : QString());
        QCOMPARE(record.payload, QByteArray(length >= 24 ? "AB" : ""));
    }
    const QByteArray longer = bytes + "surplus";
    QCOMPARE(DataRecord::read(longer).payload, "AB");
    const QByteArray tooShort = hex("7FFFFFFF 6572726F72");
    QVERIFY(!DataRecord::read(tooShort).isAccepted());
    QCOMPARE(DataRecord::read(hex("00000005 6572726F72 00000003 006600 00000001 41")).fileName,
        QString()); // half a character
}

void TestSpool::linkRecordsAreCutFromAnyPieces()
{
    const QByteArray stream =
        LinkRecord::make("errorx") + LinkRecord::make("") + LinkRecord::make(LinkRecord::keepAlive);
    QCOMPARE(stream, hex("06000000 6572726f7278 00000000 04000000 6c697665"));
    LinkRecord::Reader reader;
    QByteArrayList bodies;
    for (const char byte : stream) {
        reader.append(QByteArray(1, byte));
        while (const auto body = reader.next())
            bodies.append(*body);
    }
    QCOMPARE(bodies, QByteArrayList({"errorx", "", "live"}));
    QVERIFY(reader.isAtRecordBoundary());

    reader.append(hex("ffffffff 41"));
    QVERIFY(!reader.next());
    QCOMPARE(reader.refusedLength(), 0xFFFFFFFFu);

    LinkRecord::AcknowledgementReader numbers;
    QList<quint64> read;
    for (const char byte : hex("0201000000000000 ffffffffffffffff 07")) {
        numbers.append(QByteArray(1, byte));
        while (const auto number = numbers.next())
            read.append(*number);
    }
    QCOMPARE(read, QList<quint64>({0x102, ~quint64(0)}));
    QCOMPARE(LinkRecord::acknowledgement(0x102), hex("0201000000000000"));
}

// --- files ---

void TestSpool::onlyFilesThatCanBeSentAreListedInOrder()
{
    Spool spool;
    const QStringList order = {u"10"_s, u"9"_s, u"_x"_s, u"AB"_s, u"Ab"_s, u"aB"_s, u"ab"_s, u"B"_s,
        u"Ж"_s, u"я"_s, u"😀"_s, u"ﬁ"_s, u"ﬁ.link"_s};
    for (qsizetype i = 0; i < order.size() - 1; ++i)
        QVERIFY(spool.writes(order.at((i * 5) % (order.size() - 1)), "x"));
    const auto link = [&](const QString &target, const QString &name) {
        return QFile::link(spool.place.path(target), spool.directory.pathOf(name));
    };
    QVERIFY(link(u"spool/9"_s, order.last()) && link(u"nowhere"_s, u"broken"_s));
    spool.place.writeFile(u"spool/.hidden"_s, "x");
    spool.place.makeFolder(u"spool/folder"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(spool.directory.pathOf(u"fifo"_s)).constData(), 0600), 0);
    QVERIFY(link(u"spool/fifo"_s, u"to_fifo"_s));
    const QByteArrayList foreign = {"/\xff\xfe",
        "/\xef\xbb\xbf"
        "1"}; // a byte order mark
    for (const QByteArray &name : foreign)
        QCOMPARE(::mknod((spool.folder.toUtf8() + name).constData(), S_IFREG | 0600, 0), 0);

    QStringList listed, oneByOne;
    bool hasForeign = false;
    for (SpoolListing rest = spool.directory.list(); !rest.isEmpty(); rest.removeFirst()) {
        listed += rest.first();
        oneByOne += spool.directory.first(
            [&](const QString &n) { return oneByOne.contains(n); }, hasForeign);
        QVERIFY(hasForeign);
    }
    QCOMPARE(listed, order);
    QCOMPARE(oneByOne, order);
    bool hasFailed = false;
    spool.directory.setForeignNamesAside(spool.report, hasFailed);
    for (const QByteArray &name : foreign) // QTemporaryDir cannot remove them
        QCOMPARE(::unlink((spool.folder.toUtf8() + "/refused" + name).constData()), 0);
    QCOMPARE(spool.said.filter(u"1: its name is no UTF-8 text"_s),
        QStringList(u"Refused file %1/%EF%BB%BF1: its name is no UTF-8 text"_s.arg(spool.folder)));
    QCOMPARE(spool.directory.open(order.last()).read(), QByteArray("x"));
    for (const QString &name : {u"to_fifo"_s, u"folder"_s, u"broken"_s})
        QVERIFY(!spool.directory.open(name).isOpen());
}

void TestSpool::onlyPlainNamesAreWritten()
{
    Spool spool;
    spool.place.makeFolder(u"spool/sub"_s);
    for (const QString &name : {u""_s, u"sub"_s, u".."_s, u".lock"_s, u"../x"_s, u"sub/x"_s,
             u"x/"_s, u"a\0b"_s, u"half a character "_s + QChar(0xD800), QString(256, u'n')})
        QVERIFY2(!spool.writes(name, "x"), qPrintable(name));
    QCOMPARE(filesBelow(spool.place.path()), 0);
    QVERIFY(spool.writes(u"good"_s, "a longer one") && spool.writes(u"good"_s, "short"));
    QCOMPARE(spool.place.readFile(u"spool/good"_s), "short");
}

void TestSpool::onlyTheDeadLeaveLeftovers()
{
    const Folder folder;
    folder.writeFile(u".incoming-1-f"_s, "half of a file");
    folder.writeFile(u"received"_s, "x");
    WholeFile living(folder.path(u"f"_s));
    QVERIFY(living.write("whole"));
    QCOMPARE(filesBelow(folder.path()), 3);
    removeLeftoversOfTheDead(folder.path());
    QCOMPARE(filesBelow(folder.path()), 2);
    QVERIFY(living.commit(WholeFile::Flush::Yes));
    QCOMPARE(folder.readFile(u"f"_s), "whole");
}

void TestSpool::leftoverThatStaysKeepsNoLock()
{
    const Spool spool;
    spool.place.makeFolder(u"spool/.incoming-x"_s);
    SpoolLock lock(spool.folder, spool.report);
    QVERIFY(!spool.directory.removeLeftovers(lock));
    QVERIFY(!QFile::exists(spool.lockPath));
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
        const QByteArray content(60'000 + 97 * number % 5'000, char(number));
        for (; !journal.hasRoomFor(1, content.size()); kept.removeFirst())
            journal.free(kept.first().second);
        kept.append({content, journal.add("n", number, "", content)});
        QVERIFY(journal.commit());
    }
    Journal left;
    QVERIFY(left.open(folder.get()) && kept.size() > 100);
    QVERIFY(left.forEach([&](const Journal::Entry &entry) {
        return !kept.isEmpty() && entry.content == kept.takeFirst().first;
    }));
    QVERIFY(kept.isEmpty());
}

void TestSpool::fileIsTheSameWhateverItsNumber_data()
{
    QTest::addColumn<std::chrono::seconds>("age");
    QTest::addColumn<int>("later"); // seconds
    QTest::addColumn<bool>("same");
    QTest::newRow("old, another number") << 60s << 0 << true;
    QTest::newRow("old, another number and time") << 60s << 1 << false;
    QTest::newRow("just written: two files may have one time") << 0s << 0 << false;
}

void TestSpool::fileIsTheSameWhateverItsNumber()
{
    QFETCH(std::chrono::seconds, age);
    QFETCH(int, later);
    QFETCH(bool, same);
    Spool spool;
    const QString path = spool.place.writeFile(u"spool/f"_s, "x");
    setAge(path, age);
    const auto before = spool.directory.mark(u"f"_s);
    const auto time = std::filesystem::last_write_time(path.toStdString());
    const QString other = spool.place.writeFile(u"spool/other"_s, "y");
    QCOMPARE(::rename(qPrintable(other), qPrintable(path)), 0);
    std::filesystem::last_write_time(path.toStdString(), time + std::chrono::seconds(later));
    QCOMPARE(before == spool.directory.mark(u"f"_s), same);
}

// --- the lock ---

void TestSpool::staleLockIsRemoved_data()
{
    QTest::addColumn<std::chrono::seconds>("age");
    QTest::addColumn<std::chrono::seconds>("waited");
    QTest::addColumn<bool>("removed");
    QTest::newRow("almost old enough") << 25s << 0s << false;
    QTest::newRow("old") << 35s << 0s << true;
    QTest::newRow("from the future, not seen long enough") << -3'600s << 29s << false;
    QTest::newRow("from the future, seen unchanged") << -3'600s << 31s << true;
}

void TestSpool::staleLockIsRemoved()
{
    QFETCH(std::chrono::seconds, age);
    QFETCH(std::chrono::seconds, waited);
    QFETCH(bool, removed);
    Spool spool;
    setAge(spool.place.writeFile(u"spool/.lock"_s, {}), age);
    SpoolLock lock(spool.folder, spool.report);
    const auto start = SpoolLock::Clock::now();
    std::ignore = lock.look(start);
    QCOMPARE(lock.look(start + waited) == SpoolLock::State::Free, removed);
    QCOMPARE(QFile::exists(spool.lockPath), !removed);
    QCOMPARE(spool.said.filter(u"Removed the lock file"_s).size(), removed ? 1 : 0);
}

void TestSpool::lockOfAKilledWriterIsRemovedAtOnce()
{
    Spool spool;
    SpoolLock waiter(spool.folder, spool.report);
    const auto start = SpoolLock::Clock::now();
    mode_t mark = 0;
    {
        SpoolLock writer(spool.folder, spool.report);
        QVERIFY(writer.tryAcquire());
        struct stat info;
        QCOMPARE(::stat(qPrintable(spool.lockPath), &info), 0);
        mark = info.st_mode;
        QCOMPARE(info.st_size, 0);
        QCOMPARE(waiter.look(start), SpoolLock::State::Held);
        QCOMPARE(waiter.look(start + 20s), SpoolLock::State::Held); // it lives
    }
    const Descriptor left(::open(qPrintable(spool.lockPath), O_CREAT | O_WRONLY, mark & 07777));
    QCOMPARE(::fchmod(left.get(), mark & 07777), 0);
    QCOMPARE(waiter.look(start + 21s), SpoolLock::State::Held);
    QCOMPARE(waiter.look(start + 21s + 11ms), SpoolLock::State::Free);
    QVERIFY(spool.said.last().endsWith(u"its writer was killed"_s));
}

void TestSpool::longWaitIsSaidOnce()
{
    Spool spool;
    SpoolLock lock(spool.folder, spool.report);
    const auto start = SpoolLock::Clock::now();
    for (const auto after : {0s, 1s, 2s, 40s}) {
        // Writers come and go: each has a lock of its own.
        setAge(spool.place.writeFile(u"spool/.lock"_s, {}), -after);
        QCOMPARE(lock.look(start + after), SpoolLock::State::Held);
        QCOMPARE(spool.said.size(), after > 1s ? 1 : 0);
    }
}

void TestSpool::lockThatCannotBeRemovedDoesNotHang()
{
    Spool spool;
    spool.place.makeFolder(u"spool/.lock/full"_s);
    setAge(spool.lockPath, 60s);
    QCOMPARE(spool.directory.write(u"f"_s, "x", spool.report), SpoolDirectory::WriteResult::NoLock);
}

void TestSpool::ownerOfABrokenLockLeavesTheNextOneAlone()
{
    Spool spool;
    SpoolLock next(spool.folder, spool.report);
    {
        SpoolLock slow(spool.folder, spool.report);
        QVERIFY(slow.acquire());
        setAge(spool.lockPath, 60s);
        QVERIFY(next.acquire());
    }
    QVERIFY(QFile::exists(spool.lockPath));
}

void TestSpool::onlyOneWaiterRemovesAStaleLock()
{
    Spool spool;
    setAge(spool.place.writeFile(u"spool/.lock"_s, {}), 60s);
    const Descriptor other(::open(qPrintable(spool.folder), O_RDONLY));
    QCOMPARE(::flock(other.get(), LOCK_EX), 0);
    QCOMPARE(SpoolLock(spool.folder, spool.report).look(), SpoolLock::State::Held);
}

QTEST_GUILESS_MAIN(TestSpool)
#include "tst_spool.moc"
