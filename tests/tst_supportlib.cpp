#include "DataBase.h"
#include "Settings.h"
#include "Workplace.h"

#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>

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
    void logNameGivesPath();
    void logSurvivesRotation();
    void logThatCannotBeWrittenIsNamedOncePerFailure();
    void unknownKeysAreNamedAndTheFileIsLeftAlone();
    void templatesOfEndedProcessesAreRemoved();
    void databaseOpensOrSaysWhy();
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

void TestSupportLib::logNameGivesPath()
{
    pLog->Message(u"before the settings are loaded, nobody hears it"_s);
    QVERIFY(!QFile::exists(pLog->filePath()));
    QVERIFY(TLog(u"journal"_s).isJournal());
    QCOMPARE(TLog(u"a.b"_s).filePath(), QDir::current().filePath(u"a.b.log"_s));
    QCOMPARE(TLog(u"sub/x"_s).filePath(), QDir::current().filePath(u"sub/x.log"_s));
    QCOMPARE(TLog(u"/var/log/m.txt"_s).filePath(), u"/var/log/m.txt"_s);
}

void TestSupportLib::logSurvivesRotation()
{
    const Workplace place;
    const QString log = place.path(u"test.log"_s);
    pLog->Message(u"first"_s);
    QVERIFY(QFile::rename(log, log + u".1"_s));
    pLog->Message(u"second"_s);
    QVERIFY(QFile::rename(log, log + u".2"_s));
    place.writeFile(log, "");
    pLog->Message(u"third"_s);
    TLog ofAnotherStart(log);
    ofAnotherStart.Enabled(true);
    ofAnotherStart.Message(u"fourth"_s);
    QCOMPARE(place.logged(), QStringList({u"third"_s, u"fourth"_s}));
}

void TestSupportLib::logThatCannotBeWrittenIsNamedOncePerFailure()
{
    const Workplace place;
    TLog late(place.path(u"later/a.log"_s)), journal(u"journal"_s);
    late.Message(u"disabled"_s);
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
    journal.Enabled(true);
    if (!QFile::exists(u"/run/systemd/journal/socket"_s))
        QVERIFY(printed(place, [&] { journal.Message(u"unheard"_s); }).endsWith(" unheard\n"));
}

void TestSupportLib::unknownKeysAreNamedAndTheFileIsLeftAlone()
{
    const Workplace place;
    const QByteArray written = "; mine\n[Main]\nProt0col=UDP\nPort=1\nhost=x\n[Other]\nFree=1\n";
    const QString file = place.writeFile(u"a.ini"_s, written);
    QSettings settings(file, QSettings::IniFormat);
    QSettings known(place.writeFile(u"known.ini"_s, "[Main]\nProtocol=\nPort=0\nHost=\n"),
        QSettings::IniFormat);
    rebuildSettingsByTemplate(settings, known);
    QCOMPARE(settings.value(u"Main/Port"_s).toString(), u"1"_s);
    settings.sync();
    QCOMPARE(place.readFile(u"a.ini"_s), written);
    const QString said = u"Unknown key \"%1\" in group [Main] of %2: it has no effect"_s;
    QCOMPARE(
        place.logged(), QStringList({said.arg(u"Prot0col"_s, file), said.arg(u"host"_s, file)}));
}

void TestSupportLib::templatesOfEndedProcessesAreRemoved()
{
    const Workplace place;
    qputenv("XDG_RUNTIME_DIR", "");
    const QString own = getIniNameDefault(true);
    const auto templateOf = [&](int id) {
        const auto end = u"-%1.ini"_s;
        return place.writeFile(QString(own).replace(end.arg(::getpid()), end.arg(id)), "");
    };
    const QString living = templateOf(1), left = templateOf(4'194'304); // above every process id
    QCOMPARE(getIniNameDefault(true), own);
    QCOMPARE(QFileInfo(own).absolutePath(), place.path());
    QVERIFY(!QFile::exists(left) && QFile::exists(living));
}

void TestSupportLib::databaseOpensOrSaysWhy()
{
    const Workplace place;
    const QString file = place.path(u"data.sqlite"_s), unnamed = place.path(u"unnamed.sqlite"_s);
    const QByteArray lines = "[Good]\nHost=host\nPort=77\nUser=user\nPassword=secret\nName=";
    QSettings settings(
        place.writeFile(u"db.ini"_s, lines + file.toUtf8() + "\n[Bad]\nDriver=QNOSUCH\n"),
        QSettings::IniFormat);
    QString connection = u"records"_s, standard;
    if (QSqlDatabase::isDriverAvailable(u"QSQLITE"_s)) {
        QVERIFY(!openDataBaseBySettings(connection, settings, u"Good"_s, u"records"_s).isValid());
        const QSqlDatabase opened = QSqlDatabase::database(connection);
        QCOMPARE(u"%1 %2 %3 %4 %5"_s.arg(opened.databaseName(), opened.hostName(),
                     opened.userName(), opened.password(), QString::number(opened.port())),
            file + u" host user secret 77"_s);
        QVERIFY(!openDataBaseBySettings(standard, settings, u"None"_s, unnamed).isValid());
        QCOMPARE(QSqlDatabase::database().databaseName(), unnamed);
    }
    QVERIFY(openDataBaseBySettings(connection, settings, u"Bad"_s, u"records"_s).isValid());
    QVERIFY(!QSqlDatabase::contains(connection));
}

QTEST_GUILESS_MAIN(TestSupportLib)
#include "tst_supportlib.moc"
