#include "DataBase.h"
#include "Settings.h"
#include "Workplace.h"

#include <QProcess>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QTest>

using namespace Qt::StringLiterals;

class TestSupportLib : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void entryStaysOnOneLine_data();
    void entryStaysOnOneLine();
    void logNameGivesPath();
    void logSurvivesRotation();
    void unknownKeysAreNamedAndTheFileIsLeftAlone();
    void templatesOfEndedProcessesAreRemoved();
    void databaseOpensOrSaysWhy();
};

void TestSupportLib::entryStaysOnOneLine_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("entry");
    QTest::newRow("plain") << u"Start Ok!"_s << u"Start Ok!"_s;
    QTest::newRow("line feed at the end is not doubled") << u"New\n"_s << u"New"_s;
    QTest::newRow("trailing blanks are kept") << u"NoName "_s << u"NoName "_s;
    QTest::newRow("only one line feed is the line's own") << u"a\n\n"_s << u"a\\n"_s;
    QTest::newRow("line feed inside") << u"a\nb"_s << u"a\\nb"_s;
    QTest::newRow("other control characters") << u"a\r\x1b[0m\u0085"_s << u"a\\x0d\\x1b[0m\\x85"_s;
    QTest::newRow("Cyrillic") << u"Версия"_s << u"Версия"_s;
    QTest::newRow("megabytes are cut") << QString(3'000'000, u'x') << QString(16'384, u'x');
}

void TestSupportLib::entryStaysOnOneLine()
{
    QFETCH(QString, text);
    const Workplace place;
    pLog->Message(text);
    QTEST(place.logged().value(0), "entry");
    const QString stamp = QString::fromUtf8(place.readFile(u"test.log"_s)).section(u' ', 0, 0);
    const QDateTime time = QDateTime::fromString(stamp, Qt::ISODateWithMs);
    QVERIFY2(stamp.size() > 23 && qAbs(time.secsTo(QDateTime::currentDateTime())) < 60,
        qPrintable(stamp));
    QCOMPARE(place.logged().size(), 1);
}

void TestSupportLib::logNameGivesPath()
{
    const QString here = QDir::currentPath() + u'/';
    QCOMPARE(TLog(u"a.b"_s).filePath(), here + u"a.b.log"_s);
    QCOMPARE(TLog(u"sub/x"_s).filePath(), here + u"sub/x.log"_s);
    QCOMPARE(TLog(u"/var/log/m.txt"_s).filePath(), u"/var/log/m.txt"_s);
}

void TestSupportLib::logSurvivesRotation()
{
    const Workplace place;
    TLog late(place.path(u"later/a.log"_s));
    late.Message(u"disabled"_s);
    late.Enabled(true);
    late.Message(u"lost"_s);
    place.makeFolder(u"later"_s);
    late.Message(u"kept"_s);
    QCOMPARE(place.Folder::logged(u"later/a.log"_s), QStringList{u"kept"_s});

    pLog->Message(u"first"_s);
    QVERIFY(QFile::rename(place.path(u"test.log"_s), place.path(u"test.log.1"_s)));
    pLog->Message(u"second"_s);
    QCOMPARE(place.logged(), QStringList{u"second"_s});
    QVERIFY(QFile::remove(place.path(u"test.log"_s)));
    pLog->Message(u"third"_s);
    QCOMPARE(place.logged(), QStringList{u"third"_s});
}

void TestSupportLib::unknownKeysAreNamedAndTheFileIsLeftAlone()
{
    const Workplace place;
    const QByteArray written = "; mine\n[Main]\nProt0col=UDP\nPort=1\nhost=x\n[Other]\nFree=1\n";
    const QString file = place.writeFile(u"a.ini"_s, written);
    {
        QSettings settings(file, QSettings::IniFormat);
        QSettings known(place.path(u"template.ini"_s), QSettings::IniFormat);
        for (const QString &key : {u"Main/Protocol"_s, u"Main/Port"_s, u"Main/Host"_s})
            known.setValue(key, u"default"_s);
        rebuildSettingsByTemplate(settings, known);
        QCOMPARE(settings.value(u"Main/Port"_s).toString(), u"1"_s);
    }
    QCOMPARE(place.readFile(u"a.ini"_s), written);
    const QStringList said = place.logged();
    QCOMPARE(said.size(), 2);
    QCOMPARE(said.filter(u"\"Prot0col\""_s).size(), 1);
    QCOMPARE(said.filter(u"\"host\""_s).size(), 1);
    QCOMPARE(said.filter(file).size(), 2);
}

void TestSupportLib::templatesOfEndedProcessesAreRemoved()
{
    const Workplace place;
    qputenv("XDG_RUNTIME_DIR", "");
    QProcess ended;
    ended.start(u"true"_s, QStringList());
    QVERIFY(ended.waitForStarted());
    const qint64 endedPid = ended.processId();
    QVERIFY(ended.waitForFinished());

    const QString own = getIniNameDefault(true);
    const auto templateOf = [&](qint64 pid) {
        return QFileInfo(own).fileName().replace(
            QString::number(QCoreApplication::applicationPid()), QString::number(pid));
    };
    place.writeFile(templateOf(endedPid), "left");
    place.writeFile(templateOf(1), "of a living process");
    QCOMPARE(getIniNameDefault(true), own);
    QCOMPARE(QFileInfo(own).absolutePath(), QDir::tempPath());
    QVERIFY(!QFile::exists(place.path(templateOf(endedPid))));
    QVERIFY(QFile::exists(place.path(templateOf(1))));
}

void TestSupportLib::databaseOpensOrSaysWhy()
{
    const Workplace place;
    QSettings settings(place.path(u"db.ini"_s), QSettings::IniFormat);
    settings.setValue(u"Good/Name"_s, place.path(u"data.sqlite"_s));
    settings.setValue(u"Bad/Driver"_s, u"QNOSUCH"_s);
    QString connection = u"records"_s;
    if (QSqlDatabase::isDriverAvailable(u"QSQLITE"_s)) {
        QVERIFY(!openDataBaseBySettings(connection, settings, u"Good"_s, u"records"_s).isValid());
        QVERIFY(QSqlDatabase::database(connection).isOpen());
    }
    QVERIFY(openDataBaseBySettings(connection, settings, u"Bad"_s, u"records"_s).isValid());
    QVERIFY(!QSqlDatabase::contains(connection));
}

QTEST_GUILESS_MAIN(TestSupportLib)
#include "tst_supportlib.moc"
