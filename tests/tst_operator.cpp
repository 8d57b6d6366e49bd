#include "BusEnds.h"
#include "Descriptor.h"
#include "Journal.h"
#include "Tool.h"
#include "Workplace.h"

#include <fcntl.h>
#include <sys/file.h>

static QByteArray goodSettings(const Workplace &place)
{
    return "; all is well\n[Base]\nLog=1\nAdminServerName=adm\nServerName=mod\nConnections=a b\n\n"
           "[Main]\nTempDir="
        + place.makeFolder(u"spool"_s).toUtf8()
        + "\nHost=192.0.2.1\nPort=7071\nLocalPort=7071\nTimeout=1000\nProtocol=UDP\n";
}

// What a good file has, what stands there instead, and what is found, whose end may be missing.
static const char *const mistakes[][3] = {
    {"", "", ""},
    {"Log=1", "Log=1\nLogName=journal", ""},
    {"Timeout=1000", "Timeout=0", ""},
    {"\nH", "\nport=1\nH", R"(10: warning: "port" has no effect in [Main]; did you mean "Port"?)"},
    {"L", "Port=7\nL", "3: warning: \"Port\" has no effect in [Base]; it belongs in [Main]"},
    {"; all is well", "Log=2", "1: warning: \"Log\" has no effect outside a group; it belongs"},
    {"; all is well\n[Base]\nLog=1", "\xEF\xBB\xBF[Base]\nLog=on", "2: error: \"Log\" = \"on\""},
    {"Log=1", "Log=1\nL\x1b=1", "4: warning: \"L\\x1b\" has no effect"},
    {"[Main]", "[Mein]\nPort=1\n[Main]", "8: warning: the module knows no group [Mein]"},
    {"Host", "Port=1\nHost", "10: warning: \"Port\" has no effect; line 12 sets it again"},
    {"; all", "# all", "1: warning: \"#\" does not begin a comment; \";\" does"},
    {"Conn", "LogName=\"l;og\n\"\nConn", "6: warning: the value of \"LogName\" goes on past"},
    {"7071", "65537",
        R"(11: error: "Port" = "65537" is not a number from 0 to 65535: it becomes 1)"},
    {"Timeout=1000", "LiveMessageTimeout=1 min", "13: error: \"LiveMessageTimeout\" = \"1"},
    {"=UDP", "=udp", "14: error: \"Protocol\" = \"udp\" is neither \"TCP\" nor \"UDP\""},
    {"192.0.2.1", "localhost", "10: error: \"Host\" = \"localhost\" is not a numeric address"},
    {"/spool", "/no", "9: error: the spool folder /"},
    {"Dir=", "Dir=spool\n;", "9: warning: \"TempDir\" = \"spool\" is relative"},
    {"Log=1", "Log=1\nLogName=a , b", "4: warning: \"LogName\" has a comma but no quotes"},
    {"Log=1", "Log=on", "3: error: \"Log\" = \"on\" is not a number: the log is off"},
    {"ServerName=mod\n", "", "2: error: \"ServerName\" is missing"},
    {"=mod", "=m.ini", "5: error: /"}, // the module would remove the file
    {"AdminServerName=adm\n", "", "2: error: \"AdminServerName\" is missing"},
    {"=adm", "=gone", "4: warning: nobody serves \"gone\""},
    {"=mod", "=adm", "5: error: \"ServerName\" is also the administration server's"},
    {"a b", "a  b", "6: error: a doubled or outer blank in \"Connections\" is an empty name"},
    {"a b", "a \xD0\xB1", "6: error: \"\xD0\xB1\" in \"Connections\" cannot be a bus name"},
    {"a b", "a mod", "6: error: \"Connections\" holds the module's own \"ServerName\""},
    {"192.0.2.1", "127.0.0.1", "12: error: \"LocalPort\" and \"Port\" are both 7071"},
    {"Timeout=1000", "Acknowledgements=1", "13: warning: \"Acknowledgements\" has no effect"},
    {"Timeout=1000", "Acknowledgements=yes", "13: error: \"Acknowledgements\" = \"yes\" is not"},
    {"=UDP", "=TCP\nAcknowledgementTimeout=0", "15: warning: \"AcknowledgementTimeout\" of 0"},
    {"192.0.2.1", "::ffff:0.0.0.0", "10: error: \"Host\" = \"::ffff:0.0.0.0\" is not"},
    {"Timeout=1000", "MaxReceivedBytes=1 GB", "13: error: \"MaxReceivedBytes\" = \"1 GB\""},
    {"a b", "\"a,b\"", "6: error: \"Connections\" holds a comma"},
    {"Log=1", "Log=1\nLogName=spool/m.log", "4: error: the log is in the spool folder"},
    {"Log=1", "Log=1\nLogName=./m.txt", "4: warning: the service rotates only /var/log/"},
    {"Timeout=1000", "StatusFile=spool/s", "13: error: the status file is in the spool folder"},
    {"Timeout=1000", "StatusFile=no/s", "13: warning: the status file cannot be written"},
    {"Timeout=1000", "Timeout=20000",
        "13: warning: \"Timeout\" = 20000 makes a transfer very slow: 1 MB, compressed, takes 1 d"},
};

class TestOperator : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void checkFindsEveryMistake();
    void checkSaysWhatTwoModulesCannotShare();
    void spoolShowsWhatWaits();
    void spoolWatchesUntilItIsStopped();
};

void TestOperator::checkFindsEveryMistake()
{
    const Workplace place;
    const BusServer admin(u"adm"_s);
    for (const auto &[right, wrong, finding] : mistakes) {
        QByteArray text = goodSettings(place);
        place.writeFile(u"m.ini"_s, text.replace(text.indexOf(right), qstrlen(right), wrong));
        const QByteArray line = *finding ? QByteArray("m.ini:") + finding : "";
        const int status = line.contains(": error: ") ? 2 : line.contains(": warning: ") ? 1 : 0;
        Tool tool(u"check m.ini"_s);
        QVERIFY2(tool.endsSaying(status, line), wrong);
        QCOMPARE(tool.said.count('\n'), status == 0 ? 0 : 1);
    }
}

void TestOperator::checkSaysWhatTwoModulesCannotShare()
{
    const Workplace place;
    const BusServer admin(u"adm"_s);
    const QByteArray text = goodSettings(place) + "StatusFile=s\n";
    place.writeFile(u"1.ini"_s, text);
    place.writeFile(u"2.ini"_s, text);
    Tool tool(u"check 1.ini 2.ini"_s);
    QTRY_COMPARE(tool.status(), 2);
    for (const char *line :
        {"2.ini:5: error: ", "2.ini:12: error: ", "2.ini:15: error: ", "2.ini:9: warning: "})
        QVERIFY2(tool.says(line), tool.said);
    QCOMPARE(tool.said.count('\n'), 4);
    place.writeFile(
        u"3.ini"_s, QByteArray(text).replace("=mod", "=m").replace("=7071", "=7072").chopped(2));
    QVERIFY(Tool(u"check --errors-only 1.ini 3.ini"_s).endsSaying(0, "3.ini:9: warning: "));
    place.writeFile(u"5.ini"_s, QByteArray(text).replace("192.0.2.1", "x\nport=1"));
    Tool sorted(u"check 5.ini"_s);
    QVERIFY(sorted.endsSaying(2, "5.ini:11: warning: "));
    QVERIFY2(sorted.said.startsWith("5.ini:10: error: "), sorted.said);
    QVERIFY(Tool(u"check --errors-only 4.ini"_s).endsSaying(2, "4.ini:1: error: the file cannot"));
    QVERIFY(Tool(u"check --directory spool 1.ini"_s)
                .endsSaying(2, ":9: error: the spool folder is the working directory"));
}

// $0 is the folder of the spool folder, and $1 a name that UDP cannot carry.
static const QString spoolScript = uR"(cd "$0/spool" && mkdir refused .sent-dead .sent-alive
    touch x1 x2 x3 x4 x5 x6 x7 x8 x9 $1 refused/$1 refused/why refused/б refused/б.1
    echo 1234 >.sent-dead/f
    touch -d '-100 seconds' x5 .lock .sent-dead .sent-alive
    head -c 100000 /dev/zero >B   # one packet when compressed
    head -c 980 /dev/urandom >a   # compressed a little longer: four packets
    head -c 16383751 /dev/urandom >refused/large)"_s;

// UDP: nine empty files of three ticks each, two of eight; a second for every file.
static const QString shownSpool = uR"({"bytes":100980,"files":12,"first":[{"bytes":980,"name":"a"},
    {"bytes":100000,"name":"B"},{"bytes":0,"name":"n"},{"bytes":0,"name":"x1"},
    {"bytes":0,"name":"x2"},{"bytes":0,"name":"x3"},{"bytes":0,"name":"x4"},
    {"age":old,"bytes":0,"name":"x5"},{"bytes":0,"name":"x6"},{"bytes":0,"name":"x7"}],
    "lockAge":old,"oldest":{"age":old,"bytes":0,"name":"x5"},"refused":[{"bytes":16383751,
    "name":"large","reason":"it has more than 16383750 bytes when compressed"},
    {"bytes":0,"name":"n","reason":"its name is longer than 97 characters"},
    {"bytes":0,"name":"why","reason":null},
    {"bytes":0,"name":"б","reason":"its name is not in Latin-1"},
    {"bytes":0,"name":"б.1","reason":"its name is not in Latin-1"}],
    "spool":"%1/spool","status":{"records_refused_total{reason=\"kind\"}":3,"up":1},
    "udp":{"packets":5,"seconds":54,"upperBound":false},"unacknowledged":[
    {"bytes":0,"files":0,"folder":".sent-alive","ownerLives":true},
    {"bytes":5,"files":1,"folder":".sent-dead","ownerLives":false}]})"_s;

void TestOperator::spoolShowsWhatWaits()
{
    const Workplace place;
    place.writeFile(u"m.ini"_s, goodSettings(place) + "StatusFile=s.prom\n");
    place.writeFile(u"s.prom"_s,
        "# HELP morvane_up x\nmorvane_up{module=\"m\\\"}\"} 1\n"
        "morvane_records_refused_total{module=\"m\",reason=\"kind\"} 3\nmorvane_odd 1\n"
            + QByteArray(65'536, '\n') + "morvane_beyond_what_is_read{module=\"m\"} 1\n");
    const QString unsendable(98, u'n');
    QCOMPARE(QProcess::execute(u"sh"_s, {u"-c"_s, spoolScript, place.path(), unsendable}), 0);
    const Descriptor owner(::open(qPrintable(place.path(u"spool/.sent-alive"_s)), O_RDONLY));
    QCOMPARE(::flock(owner.get(), LOCK_EX), 0);

    Tool tool(u"spool --json m.ini"_s);
    QVERIFY(tool.endsSaying(0, "\n"));
    QString shown = QString::fromUtf8(tool.said).trimmed().replace(unsendable, u"n"_s);
    shown.remove(QRegularExpression(uR"("age":\d\d?(\.\d+)?,)"_s)); // of all files but x5
    shown.replace(QRegularExpression(uR"(\b1[0-4]\d(\.\d+)?,)"_s), u"old,"_s);
    const QString expected = shownSpool.arg(place.path()).remove(u"\n    "_s);
    QCOMPARE(shown.split(u"},"_s), expected.split(u"},"_s));
}

void TestOperator::spoolWatchesUntilItIsStopped()
{
    const Workplace place;
    place.writeFile(u"m.ini"_s, goodSettings(place) + "StatusFile=none\n");
    Tool tool(u"spool --watch m.ini"_s);
    QTRY_VERIFY(tool.says("waiting  0 files, 0 bytes\n"));
    QVERIFY2(tool.says("/none cannot be read: No such file"), tool.said);
    const Descriptor sent(::open(qPrintable(place.makeFolder(u"spool/.sent-new"_s)), O_RDONLY));
    Journal journal;
    QVERIFY(journal.create(sent.get()));
    journal.add("n", 1, "error", "123");
    QVERIFY(journal.commit());
    place.writeFile(u"spool/f\x1b"_s, "12345");
    QTRY_VERIFY(tool.says("waiting  1 file, 5 bytes\n"));
    for (const char *line : {"first    f\\x1b  5 bytes  ",
             "1 file, 8 bytes in .sent-new, not acknowledged; the module that sent them runs"})
        QVERIFY2(tool.says(line), tool.said);
    QVERIFY2(!tool.says("\x1b"), "a plain pipe gets plain text");
    // So large a file is counted as it is.
    QVERIFY(QFile::resize(place.writeFile(u"spool/f\x1b"_s, {}), 100'000'001));
    QTRY_VERIFY(tool.says("UDP      at most "));
    tool.raise(SIGTERM);
    QTRY_COMPARE(tool.status(), 0);
    QVERIFY(QDir(place.path(u"spool"_s)).removeRecursively());
    QVERIFY(Tool(u"spool m.ini"_s).endsComplaining(1, "/spool: No such file"));
}

QTEST_GUILESS_MAIN(TestOperator)
#include "tst_operator.moc"
