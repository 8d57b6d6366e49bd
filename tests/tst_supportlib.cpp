#include "DataBase.h"
#include "Settings.h"
#include "Workplace.h"

#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>

class TestSupportLib : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void entryStaysOnOneLine();
    void logNameGivesPath();
    void logSurvivesRotation();
    void unknownKeysAreNamedAndTheFileIsLeftAlone();
    void templatesOfEndedProcessesAreRemoved();
    void databaseOpensOrSaysWhy();
};

void TestSupportLib::entryStaysOnOneLine()
{
    const Workplace place;
    pLog->Message(u"one line feed is the line's own\n\n"_s);
    pLog->Message(u"a\r\x1b[0m\u0085"_s);
    pLog->Message(QString(3'000'000, u'x'));
    QCOMPARE(place.logged(),
        QStringList({u"one line feed is the line's own\\n"_s, u"a\\x0d\\x1b[0m\\x85"_s,
            QString(16'384, u'x')}));
    const QString stamp = QString::fromUtf8(place.readFile(u"test.log"_s)).section(u' ', 0, 0);
    const QDateTime time = QDateTime::fromString(stamp, Qt::ISODateWithMs);
    QVERIFY2(stamp.size() > 23 && qAbs(time.secsTo(QDateTime::currentDateTime())) < 60,
        qPrintable(stamp));
}

void TestSupportLib::logNameGivesPath()
{
    pLog->Message(u"before the settings are loaded, nobody hears it"_s);
    QVERIFY(!QFile::exists(pLog->filePath()));
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
    const QString said = u"Unknown key \"%1\" in group [Main] of %2: it has no effect"_s;
    QCOMPARE(
        place.logged(), QStringList({said.arg(u"Prot0col"_s, file), said.arg(u"host"_s, file)}));
}

void TestSupportLib::templatesOfEndedProcessesAreRemoved()
{
    const Workplace place;
    qputenv("XDG_RUNTIME_DIR", "");
    const QString own = getIniNameDefault(true);
    const auto templateOf = [&](int pid) {
        return place.writeFile(
            QFileInfo(own).fileName().replace(
                QString::number(QCoreApplication::applicationPid()), QString::number(pid)),
            "");
    };
    const QString left = templateOf(4'194'304); // no process ever has that number
    const QString living = templateOf(1);
    QCOMPARE(getIniNameDefault(true), own);
    QCOMPARE(QFileInfo(own).absolutePath(), place.path());
    QVERIFY(!QFile::exists(left) && QFile::exists(living));
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
