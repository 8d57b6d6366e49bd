#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "Record.h"
#include "StopSignals.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QNetworkProxy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int mostConnections = 16; // at once; each may hold one unfinished record in memory
constexpr qint64 readBuffer = 1'048'576; // bytes; beyond it the peer waits
constexpr qsizetype shortestNumber = 6; // digits of a record's file name

constexpr char description[] =
    R"(Listens on TCP port PORT as the peer of modules and takes the records of their links.
Port 0 takes any free port; the first line says which.

With --dir each record becomes one file in DIR, which is made if it is missing: 000001,
000002 and so on, in the order of arrival. Numbering goes on behind the highest number
that is already there, and no file is overwritten, unless --overwrite starts again at
000001. A file gets its number when it is complete. Without --dir records are shown
and forgotten.

A record holds its kind directly followed by its payload, so a kind is shown as how the
record begins: "tempdb..." may also be "tempdb_t...". Keep-alives are shown and counted,
but not written. Connections may come one after the other or together, up to 16.

--count N leaves with status 0 after N records; what follows them is not taken. SIGINT
and SIGTERM end it with status 0. It ends with a summary.)";

struct ReceiveOptions
{
    QHostAddress address;
    quint16 port = 0;
    QString directory; // none: records are only shown
    bool overwrite = false;
    qint64 count = 0; // of records to leave after; 0: none
    quint32 longestRecord = 0; // bytes
    bool quiet = false;
};

// Numbered files in one folder.
//
// Errors:  results say what failed; nothing is ever written outside the folder.
class NumberedFiles
{
public:
    // The numbers go on behind those that are there, or start again and overwrite.
    [[nodiscard]] bool open(const QString &path, bool overwriting);
    // The number of the new file; nothing if it could not be written.
    [[nodiscard]] std::optional<qint64> add(const QByteArray &content);

private:
    [[nodiscard]] QString pathOf(qint64 number) const;

    QDir directory;
    bool overwrite = false;
    qint64 last = 0; // number given
};

bool NumberedFiles::open(const QString &path, bool overwriting)
{
    directory = QDir(path);
    overwrite = overwriting;
    if (!directory.mkpath(u"."_s))
        return false;
    if (overwrite)
        return true;
    const QStringList names = directory.entryList(QDir::AllEntries | QDir::Hidden | QDir::System);
    for (const QString &name : names) {
        bool isNumber = false;
        const qint64 number = name.toLongLong(&isNumber);
        if (isNumber && name.size() >= shortestNumber)
            last = std::max(last, number);
    }
    return true;
}

QString NumberedFiles::pathOf(qint64 number) const
{
    return directory.absoluteFilePath(u"%1"_s.arg(number, int(shortestNumber), 10, QChar(u'0')));
}

// A file that is cut short by a crash keeps its hidden name.
std::optional<qint64> NumberedFiles::add(const QByteArray &content)
{
    QFile file(
        directory.absoluteFilePath(u".incoming-%1"_s.arg(QCoreApplication::applicationPid())));
    file.remove();
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)
        || file.write(content) != content.size() || !file.flush()) {
        file.remove();
        return std::nullopt;
    }
    file.close();
    do {
        ++last;
        if (overwrite)
            QFile::remove(pathOf(last));
        if (file.rename(pathOf(last))) // it never replaces a file
            return last;
    } while (QFile::exists(pathOf(last)));
    file.remove();
    return std::nullopt;
}

// How a body begins. A kind is not told apart from a payload that goes on like a longer kind.
QString beginningOf(const QByteArray &body)
{
    for (const QByteArray &kind : {QByteArray("tempdb"), QByteArray("error")}) {
        if (body.startsWith(kind))
            return QString::fromLatin1(kind) + u"..."_s;
    }
    return u"no known kind"_s;
}

// The TCP peer: takes every connection, cuts its stream into records and keeps or shows them.
//
// Owner:   the subcommand, for the time of its event loop.
// Thread:  main thread.
// Errors:  a peer's fault is said and drops its connection; a record that cannot be written ends
//          the event loop with the tool's failure status.
class Receiver : public QObject
{
public:
    explicit Receiver(const ReceiveOptions &receiveOptions);
    ~Receiver() override;
    // False, and said, if the port or the folder cannot be used.
    [[nodiscard]] bool start();
    void saySummary() const;

private:
    struct Link
    {
        QString peer;
        LinkRecord::Reader reader;
    };

    void accept();
    void take(QTcpSocket *socket, Link &link);
    void takeRecord(const QByteArray &body);
    void dropOversized(QTcpSocket *socket, const Link &link);
    void sayEnd(const Link &link) const;
    void sayEvent(const QString &what) const;

    const ReceiveOptions &options;
    QTcpServer server;
    NumberedFiles files;
    int openLinks = 0;
    bool finished = false;
    qint64 connections = 0;
    qint64 records = 0;
    qint64 bytes = 0; // of the records' bodies
    qint64 keepAlives = 0;
};

Receiver::Receiver(const ReceiveOptions &receiveOptions)
    : options(receiveOptions)
{
    server.setProxy(QNetworkProxy::NoProxy);
    connect(&server, &QTcpServer::newConnection, this, &Receiver::accept);
}

// The sockets report their end while they are destroyed, when nobody is left to hear of it.
Receiver::~Receiver()
{
    const QList<QTcpSocket *> sockets = server.findChildren<QTcpSocket *>();
    for (QTcpSocket *socket : sockets)
        socket->disconnect(this);
}

bool Receiver::start()
{
    if (!options.directory.isEmpty() && !files.open(options.directory, options.overwrite)) {
        complain(u"receive: the folder %1 cannot be used"_s.arg(options.directory));
        return false;
    }
    if (!server.listen(options.address, options.port)) {
        complain(u"receive: cannot listen on %1 port %2: %3"_s.arg(
            options.address.toString(), QString::number(options.port), server.errorString()));
        return false;
    }
    say(timeStamp()
        + u"  Listening on %1 port %2"_s.arg(
            server.serverAddress().toString(), QString::number(server.serverPort())));
    return true;
}

void Receiver::accept()
{
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        const QString peer =
            u"%1 port %2"_s.arg(socket->peerAddress().toString()).arg(socket->peerPort());
        if (openLinks >= mostConnections) {
            sayEvent(u"Refused %1: %2 are open"_s.arg(peer, counted(openLinks, u"connection"_s)));
            delete socket;
            continue;
        }
        ++openLinks;
        ++connections;
        sayEvent(u"Connected: "_s + peer);
        socket->setReadBufferSize(readBuffer);
        const auto link = std::make_shared<Link>(peer, LinkRecord::Reader(options.longestRecord));
        connect(socket, &QIODevice::readyRead, this, [=, this] { take(socket, *link); });
        connect(socket, &QAbstractSocket::disconnected, this, [=, this] {
            take(socket, *link);
            sayEnd(*link);
            --openLinks;
            socket->deleteLater();
        });
        take(socket, *link); // what came before anybody listened to the signal
    }
}

void Receiver::take(QTcpSocket *socket, Link &link)
{
    if (finished || link.reader.refusedLength() != 0)
        return;
    link.reader.append(socket->readAll());
    while (const std::optional<QByteArray> body = link.reader.next()) {
        takeRecord(*body);
        if (finished)
            return;
    }
    if (link.reader.refusedLength() != 0)
        dropOversized(socket, link);
}

void Receiver::takeRecord(const QByteArray &body)
{
    if (body == LinkRecord::keepAlive) {
        ++keepAlives;
        return sayEvent(u"live"_s);
    }
    qint64 number = records + 1;
    if (!options.directory.isEmpty()) {
        const std::optional<qint64> written = files.add(body);
        if (!written) {
            complain(u"receive: cannot write a record of %1 into %2"_s.arg(
                counted(body.size(), u"byte"_s), options.directory));
            finished = true;
            return QCoreApplication::exit(failureStatus);
        }
        number = *written;
    }
    ++records;
    bytes += body.size();
    sayEvent(u"%1  %2  %3"_s.arg(number, int(shortestNumber), 10, QChar(u'0'))
                 .arg(counted(body.size(), u"byte"_s), beginningOf(body)));
    if (records == options.count) {
        finished = true;
        QCoreApplication::exit(0);
    }
}

void Receiver::dropOversized(QTcpSocket *socket, const Link &link)
{
    complain(u"receive: %1 announces a record of %2, more than %3: dropped"_s.arg(link.peer,
        counted(link.reader.refusedLength(), u"byte"_s), QString::number(options.longestRecord)));
    socket->abort();
}

void Receiver::sayEnd(const Link &link) const
{
    const bool whole = link.reader.isAtRecordBoundary();
    sayEvent(u"Disconnected: "_s + link.peer + (whole ? u""_s : u", in the middle of a record"_s));
}

void Receiver::sayEvent(const QString &what) const
{
    if (!options.quiet)
        say(timeStamp() + u"  "_s + what);
}

void Receiver::saySummary() const
{
    say(timeStamp()
        + u"  %1 of %2, %3, %4"_s.arg(counted(records, u"record"_s), counted(bytes, u"byte"_s),
            counted(keepAlives, u"keep-alive"_s), counted(connections, u"connection"_s)));
}

void addOptions(CommandLine &line)
{
    line.addValue(u"address"_s, u"ADDRESS"_s,
        u"Numeric address to listen on (default 127.0.0.1)."_s, u"127.0.0.1"_s);
    line.addValue(u"dir"_s, u"DIR"_s, u"Write each record to a file in this folder."_s);
    line.addFlag(u"overwrite"_s, u"Start at 000001 and replace files of earlier runs."_s);
    line.addValue(u"count"_s, u"N"_s, u"Leave after N records."_s);
    line.addValue(u"limit"_s, u"BYTES"_s,
        u"Drop a connection that announces a longer record (default 100000000)."_s, u"100000000"_s);
    line.addFlag(u"quiet"_s, u"Do not show every record and connection."_s);
}

std::optional<int> readOptions(const CommandLine &line, ReceiveOptions &options)
{
    constexpr int highest = std::numeric_limits<int>::max();
    const std::optional<int> port =
        line.number(u"PORT"_s, line.positionals().constFirst(), 0, 65'535);
    const std::optional<int> count =
        line.isSet(u"count"_s) ? line.number(u"count"_s, 1, highest) : 0;
    const std::optional<int> limit = line.number(u"limit"_s, 1, 1'000'000'000);
    if (!port || !count || !limit)
        return usageStatus;
    options.port = quint16(*port);
    options.count = *count;
    options.longestRecord = quint32(*limit);
    options.directory = line.value(u"dir"_s);
    options.overwrite = line.isSet(u"overwrite"_s);
    options.quiet = line.isSet(u"quiet"_s);
    if (!options.address.setAddress(line.value(u"address"_s)))
        return line.wrongUsage(u"\"%1\" is no numeric address."_s.arg(line.value(u"address"_s)));
    if (options.directory.isEmpty() && (line.isSet(u"dir"_s) || options.overwrite))
        return line.wrongUsage(u"--dir takes a folder, and --overwrite needs it."_s);
    return std::nullopt;
}

} // namespace

int runReceive(const QStringList &arguments)
{
    CommandLine line(u"receive"_s, u"PORT"_s, QString::fromLatin1(description));
    addOptions(line);
    if (const std::optional<int> status = line.parse(arguments, 1, 1))
        return *status;
    ReceiveOptions options;
    if (const std::optional<int> status = readOptions(line, options))
        return *status;

    Receiver receiver(options);
    endLoopOnStopSignals(&receiver);
    if (!receiver.start())
        return failureStatus;
    const int status = QCoreApplication::exec();
    receiver.saySummary();
    return status;
}
