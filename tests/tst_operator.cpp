#include "Tool.h"
#include "WholeFile.h"
#include "Workplace.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTest>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

constexpr char goodSettings[] = R"(; all is well
[Base]
Log=1
AdminServerName=adm
ServerName=mod
Connections=a b

[Main]
TempDir=SPOOL
Host=192.0.2.1
Port=7071
LocalPort=7071
Timeout=1000
Protocol=UDP
)";

// A module's folder with settings and an empty spool.
class ModulePlace : public Workplace
{
public:
    ModulePlace()
    {
        QByteArray text(goodSettings);
        writeFile(u"settings.ini"_s, text.replace("SPOOL", makeFolder(u"spool"_s).toUtf8()));
    }
    [[nodiscard]] QString settings() const { return path(u"settings.ini"_s); }
    [[nodiscard]] QJsonObject spoolNow() const
    {
        Tool tool({u"spool"_s, u"--json"_s, settings()});
        tool.waitForFinished(patience);
        return QJsonDocument::fromJson(tool.readAllStandardOutput()).object();
    }
    void makeOld(const QString &name, int seconds) const
    {
        const timespec time{::time(nullptr) - seconds, 0};
        const timespec times[] = {time, time};
        if (::utimensat(AT_FDCWD, QFile::encodeName(path(name)).constData(), times, 0) != 0)
            qFatal("cannot make %s old", qPrintable(name));
    }
};

QByteArray noise(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(1);
    for (char &byte : bytes)
        byte = char(generator.generate());
    return bytes;
}

} // namespace

class TestOperator : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void checkFindsEveryMistake_data();
    void checkFindsEveryMistake();
    void checkSaysWhatTwoModulesCannotShare();
    void spoolShowsWhatWaits();
    void spoolTellsRecordsOfTheLivingFromThoseOfTheDead();
    void spoolWatchesUntilItIsStopped();
};

void TestOperator::checkFindsEveryMistake_data()
{
    QTest::addColumn<QByteArray>("right");
    QTest::addColumn<QByteArray>("wrong");
    QTest::addColumn<QByteArray>("finding"); // line, colon, text, of which the end may be missing
    const auto row = [](const char *name, const char *right, const char *wrong,
                         const char *finding) {
        QTest::newRow(name) << QByteArray(right) << QByteArray(wrong) << QByteArray(finding);
    };
    row("a good file", "", "", "");
    row("a key that is nearly right", "Port=7071\nL", "Port=7071\nport=1\nL",
        "12: warning: \"port\" has no effect in [Main], is \"Port\" meant?");
    row("a key in the wrong group", "Log=1", "Log=1\nTimeout=7",
        "4: warning: \"Timeout\" has no effect in [Base], it belongs in [Main]");
    row("a key outside of all groups", "; all is well", "Log=2", "1: warning: \"Log\" has no");
    row("an unknown group", "[Main]", "[Mein]\nPort=1\n[Main]",
        "8: warning: the module knows no group [Mein]: nothing in it has an effect, is \"Main\"");
    row("a key that is set twice", "Port=7071", "Port=7071\nPort=7072",
        "11: warning: \"Port\" has no effect, line 12");
    row("a remark of another language", "; all", "# all", "1: warning: \"#\"");
    row("a line that sets nothing", "; all", "all", "1: warning: \"all is well\" has no \"=\"");
    row("a quote that is not closed", "\nServerName", "\nLogName=\"log\n\"\nServerName",
        "5: warning: the value of \"LogName\" goes on");
    row("a number that wraps", "Port=7071", "Port=70000",
        "11: error: \"Port\" = \"70000\" is no number from 0 to 65535: it becomes 4464");
    row("a negative number", "Timeout=1000", "Timeout=-65535",
        "13: error: \"Timeout\" = \"-65535\"");
    row("a number with its unit", "Timeout=1000", "LiveMessageTimeout=1 min",
        "13: error: \"LiveMessageTimeout\" = \"1 min\" is no number from 0 to 65535: it becomes 0");
    row("an unknown protocol", "=UDP", "=udp", "14: error: \"Protocol\" = \"udp\" is neither");
    row("a host name", "192.0.2.1", "localhost", "10: error: \"Host\" = \"localhost\"");
    row("a folder that is missing", "SPOOL", "SPOOL/no", "9: error: the spool folder ");
    row("a file as folder", "SPOOL", "FILE", "9: error: ");
    row("a relative folder", "SPOOL", "spool", "9: warning: \"TempDir\" = \"spool\" is relative");
    row("a comma without quotes", "Log=1", "Log=1\nLogName=a , b", "4: warning: \"LogName\" holds");
    row("no name on the bus", "ServerName=mod\n", "", "2: error: \"ServerName\" is missing");
    row("an empty name on the bus", "=mod", "=", "5: error: \"\" in \"ServerName\" can be no");
    row("a file that the module would remove", "=mod", "=settings.ini", "5: error: ");
    row("no administration server", "AdminServerName=adm\n", "",
        "2: error: \"AdminServerName\" is missing");
    row("the administration server's name", "=mod", "=adm", "5: error: \"ServerName\" is also");
    row("a doubled blank", "a b", "a  b", "6: error: a doubled or outer blank");
    row("a name that no socket can have", "a b", "a \xD0\xB1", "6: error: \"\xD0\xB1\" in");
    row("a module that waits for itself", "a b", "a mod", "6: error: \"Connections\" holds");
    row("a module that sends to itself", "192.0.2.1", "127.0.0.1", "12: error: \"LocalPort\" and");
    row("transfers of days", "Timeout=1000", "Timeout=20000",
        "13: warning: \"Timeout\" = 20000 makes a transfer very slow: 1 MB, compressed, takes 1 "
        "day 3 h and the largest file 18 days 23 h");
    row("no log", "Log=1", "Log=0", "3: warning: the log is off");
    row("a log that is no number", "Log=1", "Log=on", "3: error: \"Log\" = \"on\" is no number");
}

void TestOperator::checkFindsEveryMistake()
{
    QFETCH(QByteArray, right);
    QFETCH(QByteArray, wrong);
    QFETCH(QByteArray, finding);
    const Workplace place;
    place.makeFolder(u"spool"_s);
    QByteArray text(goodSettings);
    if (!right.isEmpty())
        text.replace(text.indexOf(right), right.size(), wrong);
    const QString file = place.path(u"settings.ini"_s);
    text.replace("SPOOL", place.path(u"spool"_s).toUtf8()).replace("FILE", file.toUtf8());
    place.writeFile(u"settings.ini"_s, text);

    QDir::setCurrent(place.path());
    Tool tool({u"check"_s, file});
    const int expected = finding.isEmpty() ? 0 : finding.contains("error: ") ? 2 : 1;
    tool.waitForFinished(patience);
    QCOMPARE(tool.status(), expected);
    const bool isSaid = finding.isEmpty() || tool.says((file.toUtf8() + ':' + finding).constData());
    QVERIFY2(isSaid, tool.said);
    QVERIFY2(tool.said.count('\n') == (finding.isEmpty() ? 0 : 1), tool.said);
}

void TestOperator::checkSaysWhatTwoModulesCannotShare()
{
    const Workplace place;
    const QByteArray text =
        QByteArray(goodSettings).replace("SPOOL", place.makeFolder(u"spool"_s).toUtf8());
    const QString first = place.writeFile(u"1.ini"_s, text);
    const QString second = place.writeFile(u"2.ini"_s, text);
    Tool tool({u"check"_s, first, second});
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 2, patience);
    for (const char *line : {"/2.ini:5: error: ", "/2.ini:12: error: ", "/2.ini:9: warning: "})
        QVERIFY2(tool.says(line), tool.said);
    QCOMPARE(tool.said.count('\n'), 3);
    const QString third = place.writeFile(
        u"3.ini"_s, QByteArray(text).replace("=mod", "=mod3").replace("=7071", "=7072"));
    Tool tolerant({u"check"_s, u"--errors-only"_s, first, third});
    QTRY_COMPARE_WITH_TIMEOUT(tolerant.status(), 0, patience);
    QVERIFY2(tolerant.says("/3.ini:9: warning: "), tolerant.said);
    Tool atHome({u"check"_s, u"--directory"_s, place.path(u"spool"_s), first});
    QTRY_COMPARE_WITH_TIMEOUT(atHome.status(), 2, patience);
    QVERIFY2(atHome.says(":9: error: the spool folder is the working directory"), atHome.said);
}

void TestOperator::spoolShowsWhatWaits()
{
    const ModulePlace place;
    for (int i = 10; i < 22; ++i)
        place.writeFile(u"spool/x%1"_s.arg(i), "");
    place.writeFile(u"spool/B"_s, QByteArray(100'000, 'b')); // one packet when compressed
    place.writeFile(u"spool/a"_s, noise(980)); // compressed a little longer: four packets
    place.makeOld(u"spool/x15"_s, 100);
    const QString unsendable(98, u'n');
    place.writeFile(u"spool/"_s + unsendable, "x");
    place.makeFolder(u"spool/refused"_s);
    place.writeFile(u"spool/refused/\u0431"_s, "x");
    place.writeFile(u"spool/refused/\u0431.1"_s, "yy");
    place.writeFile(u"spool/refused/"_s + unsendable, "x");
    place.writeFile(u"spool/refused/large"_s, noise(16'383'751));
    place.writeFile(u"spool/refused/why"_s, "x");
    place.writeFile(u"spool/.lock"_s, "");
    place.makeOld(u"spool/.lock"_s, 20);

    const QJsonObject shown = place.spoolNow();
    QCOMPARE(shown[u"files"].toInt(), 15);
    QCOMPARE(shown[u"bytes"].toInt(), 100'981);
    QCOMPARE(shown[u"oldest"][u"name"].toString(), u"x15"_s);
    QVERIFY(shown[u"oldest"][u"age"].toDouble() >= 100);
    QVERIFY(shown[u"lockAge"].toDouble() >= 20 && shown[u"lockAge"].toDouble() < 60);
    QStringList first;
    for (const QJsonValue &file : shown[u"first"].toArray())
        first.append(file[u"name"].toString());
    QCOMPARE(first,
        QStringList({u"a"_s, u"B"_s, unsendable, u"x10"_s, u"x11"_s, u"x12"_s, u"x13"_s, u"x14"_s,
            u"x15"_s, u"x16"_s}));
    QStringList reasons;
    for (const QJsonValue &file : shown[u"refused"].toArray())
        reasons.append(file[u"reason"].toString(u"-"_s));
    QCOMPARE(reasons,
        QStringList({u"it has more than 16383750 bytes when compressed"_s,
            u"its name is longer than 97 characters"_s, u"-"_s, u"its name is not in Latin-1"_s,
            u"its name is not in Latin-1"_s}));
    // Twelve empty files of three ticks each, two of eight; a second for every file.
    QCOMPARE(shown[u"udp"][u"packets"].toInt(), 5);
    QCOMPARE(shown[u"udp"][u"seconds"].toDouble(), 12 * 3 + 2 * 8 + 14.0);
    QCOMPARE(shown[u"udp"][u"upperBound"].toBool(true), false);
}

void TestOperator::spoolTellsRecordsOfTheLivingFromThoseOfTheDead()
{
    const ModulePlace place;
    for (const QString &folder : {u"dead"_s, u"alive"_s, u"young"_s}) {
        place.makeFolder(u"spool/.sent-"_s + folder);
        place.writeFile(u"spool/.sent-"_s + folder + u"/f"_s, "12345");
    }
    place.makeOld(u"spool/.sent-dead"_s, 60);
    place.makeOld(u"spool/.sent-alive"_s, 60);
    const Descriptor owner(::open(
        QFile::encodeName(place.path(u"spool/.sent-alive"_s)).constData(), O_RDONLY | O_CLOEXEC));
    QCOMPARE(::flock(owner.get(), LOCK_EX), 0);

    QStringList shown;
    for (const QJsonValue &sent : place.spoolNow()[u"unacknowledged"].toArray())
        shown.append(
            u"%1 %2 %3"_s.arg(sent[u"folder"].toString(), QString::number(sent[u"bytes"].toInt()),
                sent[u"ownerLives"].toBool() ? u"lives"_s : u"has ended"_s));
    QCOMPARE(shown,
        QStringList(
            {u".sent-alive 5 lives"_s, u".sent-dead 5 has ended"_s, u".sent-young 5 lives"_s}));
}

void TestOperator::spoolWatchesUntilItIsStopped()
{
    const ModulePlace place;
    Tool tool({u"spool"_s, u"--watch"_s, place.settings()});
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("waiting  0 files, 0 bytes\n"), patience);
    place.writeFile(u"spool/f\x1b"_s, "12345");
    QTRY_VERIFY_WITH_TIMEOUT(tool.says("waiting  1 file, 5 bytes\n"), patience);
    QVERIFY2(tool.says("first    f\\x1b  5 bytes  "), tool.said);
    QVERIFY2(!tool.says("\x1b"), "a plain pipe gets plain text");
    tool.raise(SIGTERM);
    QTRY_COMPARE_WITH_TIMEOUT(tool.status(), 0, patience);
}

QTEST_GUILESS_MAIN(TestOperator)
#include "tst_operator.moc"
