#include "BusFrame.h"
#include "BusName.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "Record.h"
#include "TConnector.h"
#include "WholeFile.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QQueue>
#include <QSet>
#include <QTimer>

#include <chrono>
#include <optional>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qint64 longestBody = 50'000'000; // bytes; a longer frame makes the module cut us off
constexpr qint64 maxUnsentBytes = 4'194'304; // read ahead no further while so much has not left
constexpr auto retryInterval = 200ms; // between two looks for a module that is not there yet
const QString standardInput = u"-"_s;

constexpr char description[] =
    R"(Puts files, or standard input with "-", on the bus name MODULE as data records, in
the order given, and leaves when every byte has left this process.

A record carries a name, under which the module keeps it in its spool: the file's base
name, or the one that --name gives. A record replaces one of the same name that still
waits, so names must differ. Nothing is sent if any file cannot be. The bus takes
frames of up to 50,000,000 bytes.

That all bytes have left does not prove that the module has stored them. The bus lies
in the temporary folder: TMPDIR must be the same for all its processes.)";

struct SendOptions
{
    QString module;
    QStringList files;
    QByteArray kind;
    QString recordName; // instead of the file's own
    uchar dataVersion = 1;
    int waitSeconds = 0; // for the module to listen
    QByteArray ownName; // on the bus
    bool quiet = false;

    [[nodiscard]] QString nameFor(const QString &file) const
    {
        return recordName.isEmpty() ? QFileInfo(file).fileName() : recordName;
    }
};

// The content of a file or of standard input; nothing, and said, if it cannot be read or is longer
// than any frame.
std::optional<QByteArray> readContent(const QString &path)
{
    QFile file(path);
    const bool opened = path == standardInput ? file.open(stdin, QIODevice::ReadOnly)
                                              : file.open(QIODevice::ReadOnly);
    if (!opened) {
        complain(u"send: cannot read %1: %2"_s.arg(path, file.errorString()));
        return std::nullopt;
    }
    const QByteArray content = file.read(longestBody + 1);
    if (file.error() == QFileDevice::NoError)
        return content.isNull() ? QByteArray("") : content; // empty, but not absent
    complain(u"send: cannot read %1: %2"_s.arg(path, file.errorString()));
    return std::nullopt;
}

// A whole data frame; empty, and said, if the file cannot be sent.
QByteArray makeFrame(const SendOptions &options, const QString &file)
{
    std::optional<QByteArray> content = readContent(file);
    if (!content)
        return {};
    const DataRecord record{options.kind, options.nameFor(file), std::move(*content)};
    QByteArray frame = BusFrame::makeData(options.dataVersion, record.write());
    if (frame.size() - qsizetype(sizeof(qint32)) <= longestBody)
        return frame;
    complain(u"send: %1 is too long: a frame carries at most %2 bytes"_s.arg(
        file, QString::number(longestBody)));
    return {};
}

// Sends the files of one run over one connection.
//
// Owner:   the subcommand, for the time of its event loop.
// Thread:  main thread.
// Errors:  are said and end the event loop with the tool's failure status; success ends it with 0.
class Sender : public QObject
{
public:
    explicit Sender(const SendOptions &sendOptions);
    void start();

private:
    struct OnItsWay
    {
        QString line; // to say when it has left
        qint64 end; // its last byte, counted from the first one of the connection
    };

    void tryToConnect();
    void begin();
    void fill();
    void noteWritten(qint64 bytes);
    void fail(const QString &what);
    void finish();

    const SendOptions &options;
    QStringList files; // not read yet
    TMyLocalSocket socket;
    QTimer retry;
    QTimer limit; // for the module to listen
    QQueue<OnItsWay> onItsWay;
    qint64 queuedBytes = 0; // of the connection
    qint64 leftBytes = 0;
    int leftRecords = 0;
    bool finished = false;
};

Sender::Sender(const SendOptions &sendOptions)
    : options(sendOptions)
    , files(sendOptions.files)
    , socket(nullptr)
{
    connect(&socket, &QLocalSocket::connected, this, &Sender::begin);
    connect(&socket, &QLocalSocket::bytesWritten, this, &Sender::noteWritten);
    connect(&socket, &QLocalSocket::disconnected, this,
        [this] { fail(u"the module has closed the connection"_s); });
    // A module has nothing to say to a sender; unread bytes would only pile up.
    connect(&socket, &QIODevice::readyRead, this, [this] { socket.skip(socket.bytesAvailable()); });
    connect(&retry, &QTimer::timeout, this, &Sender::tryToConnect);
    limit.setSingleShot(true);
    connect(&limit, &QTimer::timeout, this, [this] {
        if (socket.state() != QLocalSocket::ConnectedState)
            fail(u"no module listens under this name (%1)"_s.arg(busSocketPath(options.module)));
    });
}

void Sender::start()
{
    retry.start(retryInterval);
    tryToConnect();
    if (!options.quiet && options.waitSeconds > 0 && socket.state() != QLocalSocket::ConnectedState)
        say(u"Waiting for %1 to listen"_s.arg(options.module));
    limit.start(std::chrono::seconds(options.waitSeconds));
}

void Sender::tryToConnect()
{
    if (socket.state() == QLocalSocket::UnconnectedState)
        socket.connectToServer(options.module);
}

void Sender::begin()
{
    retry.stop();
    const QByteArray greeting = BusFrame::makeName(options.ownName);
    queuedBytes = greeting.size();
    socket.write(greeting);
    fill();
}

// Keeps a few frames on their way, so that memory does not follow the number of files.
void Sender::fill()
{
    while (!finished && !files.isEmpty() && socket.bytesToWrite() < maxUnsentBytes) {
        const QString file = files.takeFirst();
        const QByteArray frame = makeFrame(options, file);
        if (frame.isEmpty())
            return fail(u"%1 cannot be sent"_s.arg(file));
        queuedBytes += frame.size();
        onItsWay.enqueue({u"Sent %1 as %2, %3 in its frame"_s.arg(options.nameFor(file),
                              QString::fromLatin1(options.kind), counted(frame.size(), u"byte"_s)),
            queuedBytes});
        socket.write(frame);
    }
}

void Sender::noteWritten(qint64 bytes)
{
    leftBytes += bytes;
    while (!onItsWay.isEmpty() && onItsWay.head().end <= leftBytes) {
        const QString line = onItsWay.dequeue().line;
        ++leftRecords;
        if (!options.quiet)
            say(line);
    }
    fill();
    if (files.isEmpty() && onItsWay.isEmpty())
        finish();
}

void Sender::finish()
{
    if (std::exchange(finished, true))
        return;
    socket.disconnectFromServer();
    if (!options.quiet)
        say(u"%1 sent to %2"_s.arg(counted(leftRecords, u"record"_s), options.module));
    QCoreApplication::exit(0);
}

void Sender::fail(const QString &what)
{
    if (std::exchange(finished, true))
        return;
    QString line = u"send: %1: %2"_s.arg(options.module, what);
    if (queuedBytes > 0)
        line += u"; %1 of %2 had left"_s.arg(
            QString::number(leftRecords), counted(options.files.size(), u"record"_s));
    complain(line);
    socket.abort();
    QCoreApplication::exit(failureStatus);
}

// What can be known before anything is sent; empty if nothing is wrong.
QString problemWith(const QString &file)
{
    const QFileInfo info(file);
    if (!info.exists())
        return u"does not exist"_s;
    if (!info.isFile() || !info.isReadable())
        return u"is no readable file"_s;
    if (info.size() > longestBody)
        return u"has %1 bytes, more than the %2 of a frame"_s.arg(
            QString::number(info.size()), QString::number(longestBody));
    return {};
}

bool canSendAll(const QStringList &files)
{
    bool all = true;
    for (const QString &file : files) {
        const QString problem = file == standardInput ? QString() : problemWith(file);
        if (!problem.isEmpty())
            complain(u"send: %1 %2"_s.arg(file, problem));
        all = all && problem.isEmpty();
    }
    return all;
}

// What is wrong with the names of the records; empty if nothing is.
QString nameProblem(const SendOptions &options)
{
    QSet<QString> names;
    for (const QString &file : options.files) {
        if (file == standardInput && (options.files.size() > 1 || options.recordName.isEmpty()))
            return u"Standard input is one record, and --name must name it."_s;
        const QString name = options.nameFor(file);
        if (!isPlainName(name))
            return u"No module keeps a record of the name \"%1\": it must not be empty, hold \"/\" "
                   "or begin with a dot. --name gives another."_s.arg(name);
        if (names.contains(name))
            return u"Two records would have the name \"%1\", and one replace the other."_s.arg(
                name);
        names.insert(name);
    }
    return {};
}

bool isDataVersion(int version)
{
    return version != BusFrame::Name && version != BusFrame::Action && version != BusFrame::Command
        && version != BusFrame::BusMessage;
}

void addOptions(CommandLine &line)
{
    line.addValue(u"kind"_s, u"KIND"_s, u"tempdb (default), error or tempdb_t."_s, u"tempdb"_s);
    line.addValue(u"name"_s, u"TEXT"_s, u"The record's name instead of the file's base name."_s);
    line.addValue(u"data-version"_s, u"N"_s,
        u"Version byte of the data frames, 0 to 255 but not 200, 202, 203, 204 (default 1)."_s,
        u"1"_s);
    line.addValue(u"wait"_s, u"SECONDS"_s,
        u"How long to wait for the module to listen (default 0)."_s, u"0"_s);
    line.addValue(
        u"as"_s, u"NAME"_s, u"Own name on the bus (default morvanectl)."_s, u"morvanectl"_s);
    line.addFlag(u"quiet"_s, u"Say only what goes wrong."_s);
}

// The options, or the exit status of a wrong usage, said.
std::optional<int> readOptions(const CommandLine &line, SendOptions &options)
{
    options.module = line.positionals().constFirst();
    options.files = line.positionals().sliced(1);
    options.kind = line.value(u"kind"_s).toUtf8();
    options.recordName = line.value(u"name"_s);
    options.ownName = line.value(u"as"_s).toUtf8();
    options.quiet = line.isSet(u"quiet"_s);
    const std::optional<int> version = line.number(u"data-version"_s, 0, 255);
    const std::optional<int> wait = line.number(u"wait"_s, 0, longestSeconds);
    if (!version || !wait)
        return usageStatus;
    options.dataVersion = uchar(*version);
    options.waitSeconds = *wait;
    if (!isDataVersion(*version))
        return line.wrongUsage(u"--data-version %1 marks another kind of frame."_s.arg(*version));
    if (!DataRecord{options.kind, {}, {}}.isAccepted())
        return line.wrongUsage(
            u"Modules take no records of the kind \"%1\"."_s.arg(QString::fromUtf8(options.kind)));
    if (const QString problem = busNameProblem(options.module); !problem.isEmpty())
        return line.wrongUsage(u"\"%1\": %2."_s.arg(options.module, problem));
    if (const QString problem = nameProblem(options); !problem.isEmpty())
        return line.wrongUsage(problem);
    return std::nullopt;
}

} // namespace

int runSend(const QStringList &arguments)
{
    CommandLine line(u"send"_s, u"MODULE FILE...|-"_s, QString::fromLatin1(description));
    addOptions(line);
    if (const std::optional<int> status = line.parse(arguments, 2))
        return *status;
    SendOptions options;
    if (const std::optional<int> status = readOptions(line, options))
        return *status;
    if (!canSendAll(options.files))
        return failureStatus;

    Sender sender(options);
    QTimer::singleShot(0, &sender, &Sender::start);
    return QCoreApplication::exec();
}
