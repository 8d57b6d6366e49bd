#include "CommandLine.h"
#include "Commands.h"
#include "FileName.h"
#include "NameTemplate.h"
#include "Output.h"
#include "Receiver.h"
#include "StopSignals.h"

#include <QCoreApplication>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr char description[] =
    R"(Listens on TCP port PORT as the peer of modules, and takes the records of their links.
Port 0 stands for any free port; the first line of output says which.

With --dir each record becomes one file in DIR, which is created if it is missing: 000001,
000002 and so on, in the order of arrival. --name gives other names, such as
"site7-{time}-{number}.rec": {number} stands for that number, and {time} for when the
record came, in UTC (20301231T235959Z). The numbers follow the highest number that is
already there, and no file is overwritten, unless --overwrite starts again at 000001. A
file gets its name when it is complete. Without --dir records are shown and not kept.

A record is its kind directly followed by its payload. Nothing separates the two, so the
output shows the beginning of the record. Keep-alives are shown and counted, but not
written. Up to 16 connections can be open at once.

With --acknowledge each module is told which of its records are safe; a module with
Acknowledgements=1 keeps a record until then. The receiver writes the records that have
arrived (up to 1,000 or 8 MiB in one batch), flushes them to the disk under their final
names, and then acknowledges them. So kills, power cuts, full disks and tunnels lose
nothing, but a record that comes again after a lost link is stored twice. DIR/.index
has a line for each record: number, link, bytes, digest (as b2sum --length=256 prints
it) and file. Two lines with one digest but different links are a record that came
twice, unless it was sent twice. An index of 64 MiB is renamed to .index.1, and a new
one begins.

To rehearse an outage, --close-after N closes every connection after N of its records,
and --stop-after N leaves it open, but stops reading it. --silence reports on standard
error each connection on which nothing has come for that time, not even a keep-alive.

--count N exits after N records. On SIGINT and SIGTERM the receiver takes the records that
have arrived whole, and exits. The last line is a summary.

Without --acknowledge, a module considers a record delivered when this host's kernel has
it, even if the receiver never reads it. So records can be lost after --count,
--close-after or --stop-after takes effect, after --limit refuses one, or when DIR is
full. Only those in the kernel's receive buffer are lost, which these options make small
(see --buffer). Rehearse with records that you can afford to lose. The summary counts the
lost records, and the exit status is 3, or 1 if a record could not be written. With
--acknowledge a module that has Acknowledgements=1 loses none.)";

void addOptions(CommandLine &line)
{
    line.addValue(u"address"_s, u"ADDRESS"_s,
        u"Numeric address to listen on (default 127.0.0.1)."_s, u"127.0.0.1"_s);
    line.addValue(u"dir"_s, u"DIR"_s, u"Write each record to a file in this folder."_s);
    line.addValue(u"name"_s, u"TEXT"_s,
        u"Names of the files, made from {number} and {time} (default {number})."_s, u"{number}"_s);
    line.addFlag(u"overwrite"_s, u"Start at 000001 and replace files of earlier runs."_s);
    line.addFlag(
        u"acknowledge"_s, u"Tell the modules which records are safe on the disk of DIR."_s);
    line.addValue(u"count"_s, u"N"_s, u"Exit after N records."_s);
    line.addValue(u"limit"_s, u"BYTES"_s,
        u"Drop a connection that announces a longer record (default 100000000)."_s, u"100000000"_s);
    line.addValue(
        u"silence"_s, u"SECONDS"_s, u"Report a connection that has been silent for SECONDS."_s);
    line.addValue(u"close-after"_s, u"N"_s, u"Close each connection after N of its records."_s);
    line.addValue(
        u"stop-after"_s, u"N"_s, u"Stop reading each connection after N of its records."_s);
    line.addValue(u"buffer"_s, u"BYTES"_s,
        u"Receive buffer of each connection (default: the smallest possible with --count, --limit, "
        "--close-after or --stop-after; 16384 with --dir; otherwise, and with --acknowledge, the "
        "kernel's choice)."_s);
    line.addFlag(u"quiet"_s, u"Do not show each record and connection."_s);
}

constexpr int smallestBuffer = 1; // bytes; the kernel raises it to its minimum
constexpr int cautiousBuffer =
    16'384; // bytes; enough for hundreds of megabytes a second on one host
constexpr int highestNumber = std::numeric_limits<int>::max();

// Returns 0 if the option is not set.
std::optional<int> optionalNumber(CommandLine &line, const QString &name, int most = highestNumber)
{
    return line.isSet(name) ? line.number(name, 1, most) : 0;
}

bool readNumbers(CommandLine &line, ReceiveOptions &options)
{
    const std::optional<int> port =
        line.number(u"PORT"_s, line.positionals().constFirst(), 0, 65'535);
    const std::optional<int> limit = line.number(u"limit"_s, 1, 1'000'000'000);
    const std::optional<int> count = optionalNumber(line, u"count"_s);
    const std::optional<int> silence = optionalNumber(line, u"silence"_s, longestSeconds);
    const std::optional<int> closeAfter = optionalNumber(line, u"close-after"_s);
    const std::optional<int> stopAfter = optionalNumber(line, u"stop-after"_s);
    const std::optional<int> buffer = optionalNumber(line, u"buffer"_s);
    if (!port || !limit || !count || !silence || !closeAfter || !stopAfter || !buffer)
        return false;
    options.port = quint16(*port);
    options.longestRecord = quint32(*limit);
    options.leaveAfterRecords = *count;
    options.silenceToReport = std::chrono::seconds(*silence);
    options.closeLinkAfterRecords = *closeAfter;
    options.stopReadingAfterRecords = *stopAfter;
    const bool endsEarly =
        *count > 0 || *closeAfter > 0 || *stopAfter > 0 || line.isSet(u"limit"_s);
    options.kernelBuffer = *buffer > 0 ? *buffer
        : line.isSet(u"acknowledge"_s) ? 0
        : endsEarly                    ? smallestBuffer
        : line.isSet(u"dir"_s)         ? cautiousBuffer
                                       : 0;
    return true;
}

// Prints a usage error and returns false if the command line makes no sense.
bool readOptions(CommandLine &line, ReceiveOptions &options)
{
    if (!readNumbers(line, options))
        return false;
    options.directory = line.value(u"dir"_s);
    options.fileNameTemplate = line.value(u"name"_s);
    options.overwrite = line.isSet(u"overwrite"_s);
    options.acknowledge = line.isSet(u"acknowledge"_s);
    options.quiet = line.isSet(u"quiet"_s);
    if (!options.address.setAddress(line.value(u"address"_s)))
        return line.wrongUsage(u"\"%1\" is not a numeric address."_s.arg(line.value(u"address"_s)));
    if (options.directory.isEmpty() && line.isSet(u"dir"_s))
        return line.wrongUsage(u"--dir needs the name of a folder."_s);
    for (const QString &option : {u"overwrite"_s, u"name"_s, u"acknowledge"_s}) {
        if (options.directory.isEmpty() && line.isSet(option))
            return line.wrongUsage(u"--%1 needs --dir."_s.arg(option));
    }
    if (options.acknowledge && options.overwrite)
        return line.wrongUsage(u"--acknowledge and --overwrite cannot be used together."_s);
    if (const QString problem = templateProblem(options.fileNameTemplate, {u"number"_s, u"time"_s});
        !problem.isEmpty())
        return line.wrongUsage(u"--name: "_s + problem);
    const QString longest =
        fillIn(options.fileNameTemplate, highestNumber, QDateTime::currentDateTime());
    if (options.fileNameTemplate.count(u"{number}"_s) != 1 || !isPlainName(longest)
        || longest.contains(u'\n') || longest.toUtf8().size() > longestFileName)
        return line.wrongUsage(
            u"--name must hold {number} exactly once and neither \"/\" nor a line feed, must not "
            "begin with a dot, and must give names of at most %1 bytes."_s.arg(longestFileName));
    if (options.closeLinkAfterRecords != 0 && options.stopReadingAfterRecords != 0)
        return line.wrongUsage(u"--close-after and --stop-after cannot be used together."_s);
    return true;
}

} // namespace

int runReceive(const QStringList &arguments)
{
    CommandLine line(u"receive"_s, u"PORT"_s, QString::fromLatin1(description));
    addOptions(line);
    ReceiveOptions options;
    if (!line.parse(arguments, 1, 1) || !readOptions(line, options))
        return line.exitStatus();

    Receiver receiver(options);
    endLoopOnStopSignals(&receiver);
    if (!receiver.start())
        return failureStatus;
    return receiver.finish(QCoreApplication::exec());
}
