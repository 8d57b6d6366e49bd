#include "Settings.h"
#include "Workplace.h"

#include <unistd.h>

namespace {

// What the action prints on standard error.
QByteArray printed(const Workplace &place, const std::function<void()> &action)
{
    const int before = ::dup(STDERR_FILENO);
    QFile file(place.path(u"stderr"_s));
    if (!file.open(QIODevice::ReadWrite | QIODevice::Truncate))
        qFatal("cannot write %s", qPrintable(file.fileName()));
    ::dup2(file.handle(), STDERR_FILENO);
    action();
    ::dup2(before, STDERR_FILENO);
    ::close(before);
    return place.readFile(u"stderr"_s);
}

} // namespace

class TestSupportLib : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void entriesStayOnOneLineAndTheBadOnesAreObserved();
    void logFollowsItsName();
    void logThatCannotBeWrittenIsNamedOncePerFailure();
    void templatesOfEndedProcessesAreRemoved();
};

void TestSupportLib::entriesStayOnOneLineAndTheBadOnesAreObserved()
{
    const Workplace place;
    QStringList observed;
    TLog::SetObserver([&](const QString &text) { observed.append(text); });
    using enum TLog::Priority;
    pLog->Message(u"one line feed is the line's own\n\n"_s, Error);
    pLog->Message(u"a\t\r\x1b[0m\u0085"_s, Warning);
    pLog->Message(QString(3'000'000, u'x'), Notice);
    pLog->Message(u"good"_s, Information);
    pLog->JournalOnly(u"not in a file"_s, Error);
    TLog::SetObserver({});
    const QStringList bad = {u"one line feed is the line's own\\n"_s, u"a\t\\x0d\\x1b[0m\\x85"_s};
    QCOMPARE(observed, bad);
    QCOMPARE(place.logged(), bad + QStringList({QString(16'384, u'x'), u"good"_s}));
    const QString stamp = QString::fromUtf8(place.readFile(u"test.log"_s)).section(u' ', 0, 0);
    const QDateTime time = QDateTime::fromString(stamp, Qt::ISODateWithMs);
    QVERIFY2(stamp.size() > 23 && qAbs(time.secsTo(QDateTime::currentDateTime())) < 60,
        qPrintable(stamp));
}

void TestSupportLib::logFollowsItsName()
{
    pLog->Message(u"before the settings are loaded, nobody hears it"_s);
    QVERIFY(!QFile::exists(pLog->filePath()));
    QVERIFY(TLog(u"journal"_s).isJournal());
    QCOMPARE(TLog(u"a.b"_s).filePath(), QDir::current().filePath(u"a.b.log"_s));
    QCOMPARE(TLog(u"sub/x"_s).filePath(), QDir::current().filePath(u"sub/x.log"_s));
    QCOMPARE(TLog(u"/var/log/m.txt"_s).filePath(), u"/var/log/m.txt"_s);

    const Workplace place;
    const QString path = place.path(u"test.log"_s);
    const auto openFiles = [] { return int(QDir(u"/proc/self/fd"_s).count()); };
    pLog->Message(u"first"_s);
    QVERIFY(QFile::rename(path, path + u".1"_s));
    pLog->Message(u"second"_s);
    QVERIFY(QFile::rename(path, path + u".2"_s));
    place.writeFile(path, "");
    pLog->Message(u"third"_s);
    const int filesBefore = openFiles();
    pLog->Reopen();
    QCOMPARE(openFiles(), filesBefore - 1);
    pLog->Message(u"fourth"_s);
    QCOMPARE(place.logged(), QStringList({u"third"_s, u"fourth"_s}));
}

void TestSupportLib::logThatCannotBeWrittenIsNamedOncePerFailure()
{
    const Workplace place;
    TLog late(place.path(u"later/a.log"_s)), full(place.path(u"full.log"_s)), journal(u"journal"_s);
    const QByteArray failure = "Cannot open the log file \"" + late.filePath().toUtf8()
        + "\": No such file or directory\n";
    const auto fail = [&] {
        late.Message(u"lost"_s);
        late.Message(u"lost"_s);
    };
    late.Enabled(true);
    QCOMPARE(printed(place, fail), failure);
    place.makeFolder(u"later"_s);
    late.Message(u"kept"_s);
    QCOMPARE(place.logged(u"later/a.log"_s), QStringList{u"kept"_s});
    QVERIFY(QDir(place.path(u"later"_s)).removeRecursively());
    QCOMPARE(printed(place, fail), failure);
    late.Reopen();
    QCOMPARE(printed(place, fail), failure);
    full.Enabled(QFile::link(u"/dev/full"_s, full.filePath()));
    QVERIFY(printed(place, [&] { full.Message(u"lost"_s); }).startsWith("Cannot write the log"));
    journal.Enabled(true);
    if (!QFile::exists(u"/run/systemd/journal/socket"_s))
        QVERIFY(printed(place, [&] { journal.Message(u"unheard"_s); }).endsWith(" unheard\n"));
}

void TestSupportLib::templatesOfEndedProcessesAreRemoved()
{
    const Workplace place;
    const Folder runtime;
    qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
    QCOMPARE(QFileInfo(getIniNameDefault(true)).path(), runtime.path());
    qputenv("XDG_RUNTIME_DIR", "");
    const QString own = getIniNameDefault(true);
    QCOMPARE(QFileInfo(own).path(), place.path());
    const auto templateOf = [&](int id) {
        const auto end = u"-%1.ini"_s;
        return place.writeFile(QString(own).replace(end.arg(::getpid()), end.arg(id)), "");
    };
    const QString living = templateOf(1), left = templateOf(4'194'304); // above every process id
    QCOMPARE(getIniNameDefault(true), own);
    QVERIFY(!QFile::exists(left) && QFile::exists(living));
}

QTEST_GUILESS_MAIN(TestSupportLib)
#include "tst_supportlib.moc"
