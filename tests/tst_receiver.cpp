#include "BusFeeder.h"
#include "KeptRecords.h"
#include "ModuleProcess.h"
#include "Oracle.h"
#include "Record.h"
#include "SmallDisk.h"
#include "Tool.h"

#include <QCryptographicHash>
#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QSet>
#include <QTcpServer>

namespace {

// Takes connections in a receiver's place and holds what it has not carried on yet.
class Tunnel : public QTcpServer
{
public:
    Tunnel()
    {
        setProxy(QNetworkProxy::NoProxy);
        connect(this, &QTcpServer::newConnection, this, [this] { join(nextPendingConnection()); });
        if (!listen(QHostAddress::LocalHost))
            qFatal("cannot listen");
    }
    [[nodiscard]] bool isUp() const
    {
        return inner && inner->state() == QTcpSocket::ConnectedState;
    }
    // What it holds is gone.
    void kill()
    {
        for (QTcpSocket *socket : findChildren<QTcpSocket *>())
            socket->abort();
    }

    quint16 target = 0;

private:
    void join(QTcpSocket *outer)
    {
        inner = new QTcpSocket(this);
        inner->setProxy(QNetworkProxy::NoProxy);
        carry(outer, inner);
        carry(inner, outer);
        inner->connectToHost(QHostAddress::LocalHost, target);
    }
    static void carry(QTcpSocket *from, QTcpSocket *to)
    {
        connect(from, &QIODevice::readyRead, to, [=] { to->write(from->readAll()); });
        connect(from, &QAbstractSocket::disconnected, to, &QAbstractSocket::abort);
        connect(from, &QAbstractSocket::errorOccurred, to, &QAbstractSocket::abort);
    }

    QTcpSocket *inner = nullptr; // of the newest connection
};

// What a receiver keeps in the folder "in" under its names.
QByteArrayList keptIn(const Folder &place)
{
    QByteArrayList bodies;
    const QStringList names = QDir(place.path(u"in"_s)).entryList(QDir::Files, QDir::Name);
    for (const QString &name : names)
        bodies.append(place.readFile(u"in/"_s + name));
    return bodies;
}

QByteArray digestOf(const QByteArray &body)
{
    return QCryptographicHash::hash(body, QCryptographicHash::Blake2b_256).toHex();
}

// What the index there says wrongly of the files, and whether it tells so many doubles.
QString judgeIndex(const Folder &place, qsizetype doubles)
{
    QSet<QByteArray> digests, overOneLink;
    QByteArrayList lines = place.readFile(u"in/.index"_s).trimmed().split('\n');
    lines.removeFirst();
    for (const QByteArray &line : std::as_const(lines)) {
        const QByteArrayList fields = line.split(' ');
        const QByteArray body = place.readFile(u"in/"_s + QString::fromUtf8(fields.value(4)));
        const QByteArray link = fields.value(1) + ' ' + fields.value(3);
        if (fields.value(3) != digestOf(body) || fields.value(2).toLongLong() != body.size())
            return u"wrong: "_s + QString::fromUtf8(line);
        if (fields.value(1) != "0" && overOneLink.contains(link))
            return u"twice over one link: "_s + QString::fromUtf8(line);
        doubles -= digests.contains(fields.value(3)) ? 1 : 0;
        digests.insert(fields.value(3));
        overOneLink.insert(link);
    }
    if (lines.size() != keptIn(place).size())
        return u"%1 lines for %2 files"_s.arg(lines.size()).arg(keptIn(place).size());
    return doubles == 0 ? QString() : u"%1 doubles are not told"_s.arg(doubles);
}

} // namespace

// The receiver that acknowledges, and senders that the tests play.
class TestReceiver : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void acknowledgesWhatItKeepsAndNoMore_data();
    void acknowledgesWhatItKeepsAndNoMore();
    void indexIsMendedAndContinued();
    void nothingIsLostBetweenBusAndDisk();

private:
    QRandomGenerator random{7};
};

void TestReceiver::acknowledgesWhatItKeepsAndNoMore_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<int>("kept"); // records and keep-alives
    QTest::newRow("everything") << u""_s << 6;
    QTest::newRow("until it leaves") << u"--count 2"_s << 3;
    QTest::newRow("until it closes") << u"--close-after 2"_s << 3;
    QTest::newRow("until it reads no more") << u"--stop-after 2"_s << 3;
    QTest::newRow("until a record is too long") << u"--limit 5"_s << 2;
}

void TestReceiver::acknowledgesWhatItKeepsAndNoMore()
{
    QFETCH(const QString, options);
    QFETCH(const int, kept);
    const Workplace place;
    Tool tool(u"receive 0 --dir in --acknowledge "_s + options);
    PeerLink sender(tool);
    QByteArray heard;
    connect(&sender, &QIODevice::readyRead, this, [&] { heard += sender.readAll(); });
    sender.write(LinkRecord::make("error") + LinkRecord::make("live") + LinkRecord::make("longer")
        + LinkRecord::make("") + LinkRecord::make("live") + LinkRecord::make("error")
        + LinkRecord::make("incomplete").chopped(1));
    const QByteArray last = LinkRecord::acknowledgement(quint64(kept));
    QTRY_VERIFY(heard.endsWith(last));
    if (!options.startsWith("--count"_L1))
        tool.raise(SIGTERM);
    QTRY_COMPARE(tool.status(), 0); // nothing is lost
    QTRY_COMPARE(sender.state(), QAbstractSocket::UnconnectedState);
    QVERIFY(heard.endsWith(last));
}

// A kill or a power cut has left files without a line, half a line, and files without a name. What
// was fetched from the folder keeps its number.
void TestReceiver::indexIsMendedAndContinued()
{
    const Workplace place;
    place.makeFolder(u"in"_s);
    const QByteArray before = "# after 3: number, link, bytes, BLAKE2b-256, file\n000004 3 1 "
        + digestOf("4") + " 000004\n000005 0 1 " + digestOf("5") + " 000005\n";
    place.writeFile(
        u"in/.index"_s, before + "000006 3 1 " + digestOf("6").chopped(1) + "\n000007 3");
    place.writeFile(u"in/.batch-0"_s, "7");
    place.writeFile(u"in/000006"_s, "error6");
    Tool tool(u"receive 0 --dir in --acknowledge"_s);
    PeerLink sender(tool);
    sender.write(LinkRecord::make("error7") + LinkRecord::make("error8"));
    const auto line = [](int number, int link) {
        const QByteArray digit = QByteArray::number(number);
        return "00000" + digit + ' ' + QByteArray::number(link) + " 6 " + digestOf("error" + digit)
            + " 00000" + digit + '\n';
    };
    QTRY_COMPARE(place.readFile(u"in/.index"_s), before + line(6, 0) + line(7, 4) + line(8, 4));
    QCOMPARE(QDir(place.path(u"in"_s)).entryList(QDir::Files | QDir::Hidden, QDir::Name),
        QStringList({u".index"_s, u"000006"_s, u"000007"_s, u"000008"_s}));

    Tool second(u"receive 0 --dir in --acknowledge"_s);
    QVERIFY2(second.endsComplaining(1, "another receiver acknowledges"), second.complaints);
}

// A module under load, a tunnel, the receiver and its disk: in turn one of the latter three fails,
// at moments that chance chooses.
void TestReceiver::nothingIsLostBetweenBusAndDisk()
{
    const Workplace place;
    const SmallDisk disk(place.makeFolder(u"in"_s));
    const bool hasDisk = disk.make(u"100M"_s);
    const QString fill = place.path(u"in/.fill"_s);
    Tunnel tunnel;
    ModuleProcess module;
    module.startWith({u"-settings"_s,
        module.writeSettings(u"m.ini"_s, "AdminServerName=\n",
            "Acknowledgements=1\nPort=" + QByteArray::number(tunnel.serverPort()) + '\n')});
    QTRY_VERIFY(module.isListening());
    BusFeeder feeder(module.place.path(u"me"_s));
    Oracle oracle(300);
    std::optional<Tool> tool;
    for (int round = 0; round <= 12; ++round) { // the receiver outlives the last one
        if (!tool)
            tunnel.target =
                PeerLink::portOf(tool.emplace(u"receive 0 --dir in --acknowledge --quiet"_s));
        QTRY_VERIFY(tunnel.isUp());
        oracle.put(feeder, 200);
        QTest::qWait(int(random.bounded(60)));
        const int fault = round % 4;
        if (fault == 0)
            tunnel.kill();
        if (fault == 1)
            tool.reset();
        if (fault < 2 || !hasDisk)
            continue;
        if (fault == 2 ? !disk.cutPower() : !shell(u"cat /dev/zero >%1; test -s %1"_s.arg(fill)))
            QSKIP("this kernel cannot shut down a file system");
        oracle.put(feeder, 200);
        QVERIFY2(tool->endsComplaining(1, fault == 2 ? "" : "cannot"), tool->complaints);
        tool.reset();
        QVERIFY(fault == 2 ? disk.remount() : QFile::remove(fill));
    }
    QTRY_VERIFY(module.spooled().isEmpty());
    QTRY_COMPARE(keptRecords(module.place.path(u"spool"_s)).size(), 0);
    QVERIFY(module.place.logged(u"morvane.log"_s).filter(u"the link is ended"_s).isEmpty());
    const QByteArrayList kept = keptIn(place);
    QCOMPARE(oracle.missing(kept, oracle.count()), QList<int>());
    QVERIFY(oracle.areWhole(kept));
    QCOMPARE(judgeIndex(place, kept.size() - oracle.count()), QString());
    module.killNow();
}

QTEST_GUILESS_MAIN(TestReceiver)
#include "tst_receiver.moc"
