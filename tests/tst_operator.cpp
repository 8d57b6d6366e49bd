#include "BusEnds.h"
#include "Tool.h"
#include "WholeFile.h"
#include "Workplace.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <fcntl.h>
#include <sys/file.h>

namespace {

QByteArray goodSettings(const Workplace &place)
{
    return QByteArray(R"(; all is well
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
)")
        .replace("SPOOL", place.makeFolder(u"spool"_s).toUtf8());
}

// One value of every object in a list.
QString values(const QJsonValue &list, const QString &key)
{
    QStringList texts;
    for (const QJsonValue &object : list.toArray())
        texts.append(object[key].toVariant().toString());
    return texts.join(u'|');
}

} // namespace

class TestOperator : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void checkFindsEveryMistake_data();
    void checkFindsEveryMistake();
    void checkSaysWhatTwoModulesCannotShare();
    void misspeltSubcommandGetsAHint();
    void spoolShowsWhatWaits();
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
        "12: warning: \"port\" has no effect in [Main]; did you mean \"Port\"?");
    row("a key in the wrong group", "Log=1", "Log=1\nTimeout=7",
        "4: warning: \"Timeout\" has no effect in [Base]; it belongs in [Main]");
    row("a key outside of all groups", "; all is well", "Log=2", "1: warning: \"Log\" has no");
    row("an unknown group", "[Main]", "[Mein]\nPort=1\n[Main]", "8: warning: the module knows no");
    row("a key that is set twice", "Host", "Port=1\nHost",
        "10: warning: \"Port\" has no effect; l");
    row("a remark of another language", "; all", "# all", "1: warning: \"#\"");
    row("a quote that is not closed", "\nServerName", "\nLogName=\"log\n\"\nServerName",
        "5: warning: the value of \"LogName\" goes on");
    row("a number that wraps", "Port=7071", "Port=70000",
        "11: error: \"Port\" = \"70000\" is not a number from 0 to 65535: it becomes 4464");
    row("a number with its unit", "Timeout=1000", "LiveMessageTimeout=1 min", "13: error: \"Live");
    row("an unknown protocol", "=UDP", "=udp", "14: error: \"Protocol\" = \"udp\" is neither");
    row("a host name", "192.0.2.1", "localhost", "10: error: \"Host\" = \"localhost\"");
    row("a folder that is missing", "/spool", "/no", "9: error: the spool folder ");
    row("a relative folder", "Dir=", "Dir=spool\n;", "9: warning: \"TempDir\" = \"spool\" is rela");
    row("a comma without quotes", "Log=1", "Log=1\nLogName=a , b", "4: warning: \"LogName\" has a");
    row("a log that is no number", "Log=1", "Log=on", "3: error: \"Log\" = \"on\" is not a number");
    row("no name on the bus", "ServerName=mod\n", "", "2: error: \"ServerName\" is missing");
    row("a file that the module would remove", "=mod", "=m.ini", "5: error: ");
    row("no administration server", "AdminServerName=adm\n", "",
        "2: error: \"AdminServerName\" is ");
    row("an administration server that nobody serves", "=adm", "=gone",
        "4: warning: nobody serves \"gone\"");
    row("the administration server's name", "=mod", "=adm", "5: error: \"ServerName\" is also");
    row("a doubled blank", "a b", "a  b", "6: error: a doubled or outer blank");
    row("a name that no socket can have", "a b", "a \xD0\xB1", "6: error: \"\xD0\xB1\" in");
    row("a module that waits for itself", "a b", "a mod", "6: error: \"Connections\" holds");
    row("a module that sends to itself", "192.0.2.1", "127.0.0.1", "12: error: \"LocalPort\" and");
    row("acknowledgements over UDP", "Timeout=1000", "Acknowledgements=1", "13: warning: \"Ackn");
    row("acknowledgements that are no number", "Timeout=1000", "Acknowledgements=yes",
        "13: error: \"Acknowledgements\" = \"yes\" is not a number");
    row("no time to acknowledge", "Timeout=1000\nProtocol=UDP",
        "Protocol=TCP\nAcknowledgementTimeout=0",
        "14: warning: \"AcknowledgementTimeout\" of 0 counts as 1 second");
    row("no peer's address", "192.0.2.1", "::ffff:0.0.0.0",
        "10: error: \"Host\" = \"::ffff:0.0.0.0\"");
    row("a limit with its unit", "Timeout=1000", "MaxReceivedBytes=1 GB", "13: error: \"MaxRec");
    row("names with a comma between", "a b", "\"a,b\"", "6: error: \"Connections\" holds a comma");
    row("a log that would be sent", "Log=1", "Log=1\nLogName=spool/m.log",
        "4: error: the log is in the spool folder");
    row("a log that nobody rotates", "Log=1", "Log=1\nLogName=./m.txt",
        "4: warning: the service r");
    row("the journal", "Log=1", "Log=1\nLogName=journal", "");
    row("a status file that would be sent", "Timeout=1000", "StatusFile=spool/s",
        "13: error: the st");
    row("a status file without a folder", "Timeout=1000", "StatusFile=no/s", "13: warning: the st");
    row("no fixed pace", "Timeout=1000", "Timeout=0", "");
    row("transfers of days", "Timeout=1000", "Timeout=20000",
        "13: warning: \"Timeout\" = 20000 makes a transfer very slow: 1 MB, compressed, takes 1 d");
}

void TestOperator::checkFindsEveryMistake()
{
    QFETCH(QByteArray, right);
    QFETCH(QByteArray, wrong);
    QFETCH(QByteArray, finding);
    const Workplace place;
    const BusServer admin(u"adm"_s);
    QByteArray text = goodSettings(place);
    place.writeFile(u"m.ini"_s, text.replace(text.indexOf(right), right.size(), wrong));
    Tool tool(u"check m.ini"_s);
    const int expected = finding.isEmpty() ? 0 : finding.contains("error: ") ? 2 : 1;
    QTRY_COMPARE(tool.status(), expected);
    QVERIFY2(finding.isEmpty() || tool.says("m.ini:" + finding), tool.said);
    QCOMPARE(tool.said.count('\n'), finding.isEmpty() ? 0 : 1);
}

void TestOperator::checkSaysWhatTwoModulesCannotShare()
{
    const Workplace place;
    const BusServer admin(u"adm"_s);
    const QByteArray text = goodSettings(place);
    place.writeFile(u"1.ini"_s, text);
    place.writeFile(u"2.ini"_s, text);
    Tool tool(u"check 1.ini 2.ini"_s);
    QTRY_COMPARE(tool.status(), 2);
    for (const char *line : {"2.ini:5: error: ", "2.ini:12: error: ", "2.ini:9: warning: "})
        QVERIFY2(tool.says(line), tool.said);
    QCOMPARE(tool.said.count('\n'), 3);
    place.writeFile(
        u"3.ini"_s, QByteArray(text).replace("=mod", "=mod3").replace("=7071", "=7072"));
    Tool tolerant(u"check --errors-only 1.ini 3.ini"_s);
    QVERIFY2(tolerant.endsSaying(0, "3.ini:9: warning: "), tolerant.said);
    Tool atHome(u"check --directory spool 1.ini"_s);
    QVERIFY2(
        atHome.endsSaying(2, ":9: error: the spool folder is the working directory"), atHome.said);
}

void TestOperator::misspeltSubcommandGetsAHint()
{
    const Workplace place;
    Tool tool(u"chek m.ini"_s), help(u"help spool"_s);
    QVERIFY2(tool.endsComplaining(2, "\"chek\"; did you mean \"check\"? See"), tool.complaints);
    QVERIFY2(help.endsSaying(0, "Usage: morvanectl spool "), help.said);
}

void TestOperator::spoolShowsWhatWaits()
{
    const Workplace place;
    place.writeFile(u"m.ini"_s, goodSettings(place) + "StatusFile=s.prom\n");
    place.writeFile(u"s.prom"_s,
        "# HELP morvane_up x\nmorvane_up{module=\"m\\\"}\"} 1\n"
        "morvane_records_refused_total{module=\"m\",reason=\"kind\"} 3\nmorvane_odd 1\n");
    const QString unsendable(98, u'n');
    const QString script = uR"(cd "$0/spool" && mkdir refused .sent-dead .sent-alive
        touch x1 x2 x3 x4 x5 x6 x7 x8 x9 $1 refused/$1 refused/why refused/б refused/б.1
        echo 1234 >.sent-dead/f
        touch -d '-100 seconds' x5 .lock .sent-dead .sent-alive
        head -c 100000 /dev/zero >B   # one packet when compressed
        head -c 980 /dev/urandom >a   # compressed a little longer: four packets
        head -c 16383751 /dev/urandom >refused/large)"_s;
    QCOMPARE(QProcess::execute(u"sh"_s, {u"-c"_s, script, place.path(), unsendable}), 0);
    const Descriptor owner(::open(
        QFile::encodeName(place.path(u"spool/.sent-alive"_s)).constData(), O_RDONLY | O_CLOEXEC));
    QCOMPARE(::flock(owner.get(), LOCK_EX), 0);

    Tool tool(u"spool --json m.ini"_s);
    QTRY_COMPARE(tool.status(), 0);
    QVERIFY(tool.says("\n"));
    const QJsonObject shown = QJsonDocument::fromJson(tool.said).object();
    QCOMPARE(shown[u"files"].toInt(), 12);
    QCOMPARE(shown[u"bytes"].toInt(), 100'980);
    QCOMPARE(shown[u"oldest"][u"name"].toString(), u"x5"_s);
    QVERIFY(shown[u"oldest"][u"age"].toDouble() >= 100);
    QVERIFY(shown[u"lockAge"].toDouble() >= 100 && shown[u"lockAge"].toDouble() < 150);
    QCOMPARE(
        values(shown[u"first"], u"name"_s), u"a|B|"_s + unsendable + u"|x1|x2|x3|x4|x5|x6|x7"_s);
    QCOMPARE(values(shown[u"refused"], u"reason"_s),
        u"it has more than 16383750 bytes when compressed|its name is longer than 97 characters||"
        "its name is not in Latin-1|its name is not in Latin-1"_s);
    QCOMPARE(values(shown[u"unacknowledged"], u"ownerLives"_s), u"true|false"_s);
    QCOMPARE(values(shown[u"unacknowledged"], u"bytes"_s), u"0|5"_s);
    QCOMPARE(shown[u"status"].toObject(),
        QJsonObject({{u"up"_s, 1}, {u"records_refused_total{reason=\"kind\"}"_s, 3}}));
    // Nine empty files of three ticks each, two of eight; a second for every file.
    QCOMPARE(shown[u"udp"][u"packets"].toInt(), 5);
    QCOMPARE(shown[u"udp"][u"seconds"].toDouble(), 9 * 3 + 2 * 8 + 11.0);
    QCOMPARE(shown[u"udp"][u"upperBound"].toBool(true), false);
}

void TestOperator::spoolWatchesUntilItIsStopped()
{
    const Workplace place;
    place.writeFile(u"m.ini"_s, goodSettings(place));
    Tool tool(u"spool --watch m.ini"_s);
    QTRY_VERIFY(tool.says("waiting  0 files, 0 bytes\n"));
    place.makeFolder(u"spool/.sent-new"_s);
    place.writeFile(u"spool/f\x1b"_s, "12345");
    QTRY_VERIFY(tool.says("waiting  1 file, 5 bytes\n"));
    QVERIFY2(tool.says("first    f\\x1b  5 bytes  "), tool.said);
    QVERIFY2(
        tool.says(" in .sent-new, not acknowledged; the module that sent them runs"), tool.said);
    QVERIFY2(!tool.says("\x1b"), "a plain pipe gets plain text");
    tool.raise(SIGTERM);
    QTRY_COMPARE(tool.status(), 0);
}

QTEST_GUILESS_MAIN(TestOperator)
#include "tst_operator.moc"
