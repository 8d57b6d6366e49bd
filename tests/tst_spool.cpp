#include "Record.h"
#include "SpoolDirectory.h"
#include "Workplace.h"

#include <QSet>
#include <QTest>

#include <atomic>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

using Result = SpoolDirectory::WriteResult;

QByteArray hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

void setModified(const QString &path, const QDateTime &time)
{
    const timespec at = {time.toSecsSinceEpoch(), 0};
    const timespec times[] = {at, at};
    if (::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW) != 0)
        qFatal("cannot set the time of %s", qPrintable(path));
}

// A spool in a temporary directory and what was said of it.
struct Spool
{
    const Workplace place;
    const QString folder = place.makeFolder(u"spool"_s);
    const SpoolDirectory directory{folder};
    QStringList said;

    Say say()
    {
        return [this](const QString &text) { said.append(text); };
    }
    Result write(const QString &name, const QByteArray &content)
    {
        return directory.write(name, content, say());
    }
    [[nodiscard]] QStringList listed() const
    {
        QStringList names;
        for (SpoolListing rest = directory.list(); !rest.isEmpty(); rest.removeFirst())
            names += rest.first();
        return names;
    }
    // Everything in the folder, hidden files included.
    [[nodiscard]] QStringList all() const
    {
        return QDir(folder).entryList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }
    void foreignLock(const QDateTime &modified) const
    {
        place.writeFile(u"spool/.lock"_s, {});
        setModified(folder + u"/.lock"_s, modified);
    }
};

} // namespace

class TestSpool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void dataRecordBytes();
    void dataRecordIsReadLeniently();
    void linkRecordsAreCutFromAnyPieces();

    void filesAreListedInTheOrderOfSending();
    void onlyFilesThatCanBeSentAreListed();
    void onlyPlainNamesAreWritten_data();
    void onlyPlainNamesAreWritten();

    void staleLockIsRemoved_data();
    void staleLockIsRemoved();
    void longWaitIsSaidOnce();
    void lockThatCannotBeRemovedDoesNotHang();
    void ownerOfABrokenLockLeavesTheNextOneAlone();
    void onlyOneWriterHoldsTheLock();
};

// --- records ---

void TestSpool::dataRecordBytes()
{
    const QByteArray bytes = hex("00000006 74656D706462 00000004 00660031 00000002 4142");
    const DataRecord record = DataRecord::read(bytes);
    QCOMPARE(record.kind, QByteArray("tempdb"));
    QCOMPARE(record.fileName, u"f1"_s);
    QCOMPARE(record.spoolContent(), QByteArray("tempdbAB"));
    QCOMPARE(record.write().toHex(), bytes.toHex());
}

void TestSpool::dataRecordIsReadLeniently()
{
    const DataRecord whole{"error", u"name"_s, "payload"};
    const QByteArray bytes = whole.write();
    for (qsizetype length = 0; length <= bytes.size(); ++length) {
        const DataRecord record = DataRecord::read(bytes.left(length));
        QCOMPARE(record.isAccepted(), length >= 9);
        QCOMPARE(record.fileName, length >= 21 ? u"name"_s : QString());
        QCOMPARE(record.payload, QByteArray(length >= 32 ? "payload" : ""));
    }
    QVERIFY(!DataRecord::read(hex("7FFFFFFF 6572726F72")).isAccepted());
    QCOMPARE(DataRecord::read(hex("00000005 6572726F72 00000003 006600 00000001 41")).fileName,
        QString()); // half a character
    QCOMPARE(DataRecord::read(bytes + "surplus").payload, whole.payload);
}

void TestSpool::linkRecordsAreCutFromAnyPieces()
{
    const QByteArray stream =
        LinkRecord::make("errorx") + LinkRecord::make("") + LinkRecord::make(LinkRecord::keepAlive);
    QCOMPARE(stream.toHex(),
        QByteArray("06000000"
                   "6572726f7278"
                   "00000000"
                   "04000000"
                   "6c697665"));
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
}

// --- files ---

void TestSpool::filesAreListedInTheOrderOfSending()
{
    Spool spool;
    const QStringList order = {u"10"_s, u"9"_s, u"_x"_s, u"a"_s, u"AB"_s, u"Ab"_s, u"aB"_s, u"ab"_s,
        u"B"_s, u"c"_s, u"Ж"_s, u"я"_s, u"😀"_s, u"ﬁ"_s};
    for (qsizetype i = 0; i < order.size(); ++i)
        QCOMPARE(spool.write(order.at((i * 5) % order.size()), "x"), Result::Written);
    QCOMPARE(spool.listed(), order);
    QStringList oneByOne;
    for (qsizetype i = 0; i < order.size(); ++i)
        oneByOne += spool.directory.first([&](const QString &n) { return oneByOne.contains(n); });
    QCOMPARE(oneByOne, order);
}

void TestSpool::onlyFilesThatCanBeSentAreListed()
{
    Spool spool;
    spool.place.writeFile(u"elsewhere"_s, "target");
    spool.place.writeFile(u"spool/file"_s, "content");
    spool.place.writeFile(u"spool/.hidden"_s, "x");
    spool.place.makeFolder(u"spool/folder"_s);
    QVERIFY(QFile::link(spool.place.path(u"elsewhere"_s), spool.folder + u"/link"_s));
    QVERIFY(QFile::link(spool.place.path(u"nowhere"_s), spool.folder + u"/broken"_s));
    const QByteArray fifo = QFile::encodeName(spool.folder + u"/fifo"_s);
    QCOMPARE(::mkfifo(fifo.constData(), 0600), 0);
    QVERIFY(QFile::link(spool.folder + u"/fifo"_s, spool.folder + u"/to_fifo"_s));
    const QByteArray invalid = QFile::encodeName(spool.folder) + "/\xff\xfe";
    QCOMPARE(::mknod(invalid.constData(), S_IFREG | 0600, 0), 0);

    QCOMPARE(spool.listed(), QStringList({u"file"_s, u"link"_s}));
    ::unlink(invalid.constData()); // QTemporaryDir cannot
    QCOMPARE(spool.directory.open(u"link"_s).read(), QByteArray("target"));
    for (const QString &name : {u"fifo"_s, u"to_fifo"_s, u"folder"_s, u"broken"_s, u"missing"_s})
        QVERIFY(!spool.directory.open(name).isOpen());
}

void TestSpool::onlyPlainNamesAreWritten_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name :
        {"", "sub", ".", "..", ".lock", ".hidden", "../x", "/etc/x", "sub/x", "x/"})
        QTest::addRow("name \"%s\"", name) << QString::fromLatin1(name);
    QTest::newRow("zero character inside") << u"a\0b"_s;
    QTest::newRow("half a character") << u"a"_s + QChar(0xD800);
    QTest::newRow("longer than the file system takes") << QString(256, u'n');
}

void TestSpool::onlyPlainNamesAreWritten()
{
    QFETCH(QString, name);
    Spool spool;
    spool.place.makeFolder(u"spool/sub"_s);
    QCOMPARE(spool.write(name, "x"), Result::NoFile);
    QCOMPARE(spool.all(), QStringList{u"sub"_s});
    QVERIFY(!QFile::exists(spool.place.path(u"x"_s)) && !QFile::exists(u"/etc/x"_s));
    QCOMPARE(spool.write(u"good"_s, QByteArray(3'000'000, 'x')), Result::Written);
    QCOMPARE(spool.write(u"good"_s, "short"), Result::Written);
    QCOMPARE(spool.directory.open(u"good"_s).read(), QByteArray("short"));
}

// --- the lock ---

void TestSpool::staleLockIsRemoved_data()
{
    QTest::addColumn<int>("age"); // seconds
    QTest::addColumn<int>("waited"); // seconds
    QTest::addColumn<bool>("removed");
    QTest::newRow("fresh") << 0 << 0 << false;
    QTest::newRow("almost old enough") << 25 << 0 << false;
    QTest::newRow("old") << 35 << 0 << true;
    QTest::newRow("from the future") << -3600 << 0 << false;
    QTest::newRow("from the future, not seen long enough") << -3600 << 29 << false;
    QTest::newRow("from the future, seen unchanged") << -3600 << 31 << true;
}

void TestSpool::staleLockIsRemoved()
{
    QFETCH(int, age);
    QFETCH(int, waited);
    QFETCH(bool, removed);
    Spool spool;
    spool.foreignLock(QDateTime::currentDateTime().addSecs(-age));
    SpoolLock lock(spool.folder, spool.say());
    const auto start = SpoolLock::Clock::now();
    std::ignore = lock.look(start);
    const auto state = lock.look(start + std::chrono::seconds(waited));
    QCOMPARE(state == SpoolLock::State::Free, removed);
    QCOMPARE(QFile::exists(spool.folder + u"/.lock"_s), !removed);
    QCOMPARE(spool.said.filter(u"Removed the lock file"_s).size(), removed ? 1 : 0);
}

void TestSpool::longWaitIsSaidOnce()
{
    Spool spool;
    SpoolLock lock(spool.folder, spool.say());
    const auto start = SpoolLock::Clock::now();
    for (const auto after : {0ms, 900ms, 1'100ms, 5'000ms, 20'000ms}) {
        // Writers come and go: each has a lock of its own.
        spool.foreignLock(QDateTime::currentDateTime().addSecs(after / 1s));
        QCOMPARE(lock.look(start + after), SpoolLock::State::Held);
        QCOMPARE(spool.said.size(), after > 1s ? 1 : 0);
    }
}

void TestSpool::lockThatCannotBeRemovedDoesNotHang()
{
    Spool spool;
    spool.place.makeFolder(u"spool/.lock/full"_s);
    setModified(spool.folder + u"/.lock"_s, QDateTime::currentDateTime().addSecs(-60));
    QCOMPARE(spool.write(u"f"_s, "x"), Result::NoLock);
}

void TestSpool::ownerOfABrokenLockLeavesTheNextOneAlone()
{
    Spool spool;
    SpoolLock next(spool.folder, spool.say());
    {
        SpoolLock slow(spool.folder, spool.say());
        QVERIFY(slow.acquire());
        setModified(spool.folder + u"/.lock"_s, QDateTime::currentDateTime().addSecs(-60));
        QVERIFY(next.acquire());
    }
    QVERIFY(QFile::exists(spool.folder + u"/.lock"_s));
}

void TestSpool::onlyOneWriterHoldsTheLock()
{
    const Spool spool;
    std::atomic<int> holders = 0, most = 0, turns = 0;
    const auto contend = [&] {
        for (int i = 0; i < 300; ++i) {
            SpoolLock lock(spool.folder, [](const QString &) {});
            if (!lock.acquire())
                continue;
            most = std::max(most.load(), ++holders);
            ++turns;
            std::this_thread::yield();
            --holders;
        }
    };
    spool.foreignLock(QDateTime::currentDateTime().addSecs(-60));
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back(contend);
    for (std::thread &thread : threads)
        thread.join();
    QCOMPARE(turns, 900);
    QCOMPARE(most, 1);
}

QTEST_GUILESS_MAIN(TestSpool)
#include "tst_spool.moc"
