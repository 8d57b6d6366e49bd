#include "CommandLine.h"
#include "Commands.h"
#include "NameTemplate.h"
#include "Output.h"
#include "Receiver.h"
#include "StopSignals.h"
#include "WholeFile.h"

#include <QCoreApplication>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr char description[] =
    R"(Listens on TCP port PORT as the peer of modules, and takes the records of their links.
Port 0 takes any free port; the first line says which.

With --dir each record becomes one file in DIR, which is created if it is missing: 000001,
000002 and so on, in the order of arrival. --name gives other names, such as
"site7-{time}-{number}.rec": {number} stands for that number, and {time} for when the
record came, in UTC (20301231T235959Z). The numbers follow the highest number that is
already there, and no file is overwritten, unless --overwrite starts again at 000001. A
file gets its name when it is complete. Without --dir records are shown and not kept.

A record holds its kind directly followed by its payload, so its kind is shown as the
beginning of the record: "tempdb..." may also be "tempdb_t...". Keep-alives are shown and
counted, but not written. Up to 16 connections can be open at once.

With --acknowledge each module is told which of its records are safe; a module with
Acknowledgements=1 keeps a record until then. The receiver writes the records that have
come, at most 1,000 and 8 MiB at once, brings them to the disk under their names, and then
acknowledges them. So kills, power cuts, full disks and tunnels lose nothing, but a record
that comes again after a lost link is stored twice. DIR/.index has a line for each record:
number, link, bytes, digest (as b2sum --length=256 prints it) and file. Two lines with one
digest but different links are a record that came twice, unless it was sent twice. An
index of 64 MiB is renamed to .index.1, and a new one begins.

To rehearse an outage, --close-after N closes every connection after N of its records,
and --stop-after N leaves it open, but reads no more of it. --silence reports on standard
error each connection on which nothing has come for that time, not even a keep-alive.

--count N exits after N records. On SIGINT and SIGTERM the receiver takes the records that
have arrived whole, and exits. The last line is a summary.

A module forgets a record when the kernel of this host has it, read or not. So some
records can be lost: those that follow the last one of --count, --close-after or
--stop-after, those after one that --limit refuses, and those that a full DIR cannot take.
Of these, the records in the kernel's receive buffer are lost; the module keeps the rest.
With these options the buffer is small (--buffer). Rehearse with records that may be lost.
The summary counts the lost records, and the exit status is 3, or 1 if a record could not
be written. With --acknowledge a module that waits for acknowledgements loses none.)";

void addOptions(CommandLine &line)
{
    line.addValue(u"address"_s, u"ADDRESS"_s,
        u"Numeric address to listen on (default 127.0.0.1)."_s, u"127.0.0.1"_s);
    line.addValue(u"dir"_s, u"DIR"_s, u"Write each record to a file in this folder."_s);
    line.addValue(u"name"_s, u"TEXT"_s,
        u"Names of the files, with {number} and {time} (default {number})."_s, u"{number}"_s);
    line.addFlag(u"overwrite"_s, u"Start at 000001 and replace files of earlier runs."_s);
    line.addFlag(
        u"acknowledge"_s, u"Tell the modules which records are safe on the disk of DIR."_s);
    line.addValue(u"count"_s, u"N"_s, u"Exit after N records."_s);
    line.addValue(u"limit"_s, u"BYTES"_s,
        u"Drop a connection that announces a longer record (default 100000000)."_s, u"100000000"_s);
    line.addValue(u"silence"_s, u"SECONDS"_s, u"Report a connection that is silent for SECONDS."_s);
    line.addValue(u"close-after"_s, u"N"_s, u"Close each connection after N of its records."_s);
    line.addValue(u"stop-after"_s, u"N"_s, u"Read no more of a connection after N records."_s);
    line.addValue(u"buffer"_s, u"BYTES"_s,
        u"Receive buffer of each connection (default: the smallest possible with --count, --limit, "
        "--close-after or --stop-after; 16384 with --dir; otherwise, and with --acknowledge, the "
        "kernel's choice)."_s);
    line.addFlag(u"quiet"_s, u"Do not show each record and connection."_s);
}

constexpr int leastBuffer = 1; // bytes; the kernel makes its own least of it
constexpr int cautiousBuffer = 16'384; // bytes; a few hundred megabytes a second on one host
constexpr int highest = std::numeric_limits<int>::max();

// 0 if the option is not there.
std::optional<int> optionalNumber(const CommandLine &line, const QString &name, int most = highest)
{
    return line.isSet(name) ? line.number(name, 1, most) : 0;
}

std::optional<int> readNumbers(const CommandLine &line, ReceiveOptions &options)
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
        return usageStatus;
    options.port = quint16(*port);
    options.longestRecord = quint32(*limit);
    options.count = *count;
    options.silence = std::chrono::seconds(*silence);
    options.closeAfter = *closeAfter;
    options.stopAfter = *stopAfter;
    const bool endsEarly =
        *count > 0 || *closeAfter > 0 || *stopAfter > 0 || line.isSet(u"limit"_s);
    options.kernelBuffer = *buffer > 0 ? *buffer
        : line.isSet(u"acknowledge"_s) ? 0
        : endsEarly                    ? leastBuffer
        : line.isSet(u"dir"_s)         ? cautiousBuffer
                                       : 0;
    return std::nullopt;
}

// Fills in the options. On wrong usage it prints an error and returns the exit status.
std::optional<int> readOptions(const CommandLine &line, ReceiveOptions &options)
{
    if (const std::optional<int> status = readNumbers(line, options))
        return status;
    options.directory = line.value(u"dir"_s);
    options.nameTemplate = line.value(u"name"_s);
    options.overwrite = line.isSet(u"overwrite"_s);
    options.acknowledge = line.isSet(u"acknowledge"_s);
    options.quiet = line.isSet(u"quiet"_s);
    if (!options.address.setAddress(line.value(u"address"_s)))
        return line.wrongUsage(u"\"%1\" is not a numeric address."_s.arg(line.value(u"address"_s)));
    if (options.directory.isEmpty() && (line.isSet(u"dir"_s) || options.overwrite))
        return line.wrongUsage(u"--dir takes a folder, and --overwrite needs it."_s);
    if (options.directory.isEmpty() && line.isSet(u"name"_s))
        return line.wrongUsage(u"--name needs --dir."_s);
    if (options.acknowledge && (options.directory.isEmpty() || options.overwrite))
        return line.wrongUsage(u"--acknowledge needs --dir and excludes --overwrite."_s);
    if (const QString problem = templateProblem(options.nameTemplate, {u"number"_s, u"time"_s});
        !problem.isEmpty())
        return line.wrongUsage(u"--name: "_s + problem);
    const QString longest = fillIn(options.nameTemplate, highest, QDateTime::currentDateTime());
    if (options.nameTemplate.count(u"{number}"_s) != 1 || !isPlainName(longest)
        || longest.contains(u'\n') || longest.toUtf8().size() > longestFileName)
        return line.wrongUsage(
            u"--name must hold {number} once, no \"/\" and no line feed, and not begin with a dot; "
            "a name has %1 bytes at most."_s.arg(longestFileName));
    if (options.closeAfter != 0 && options.stopAfter != 0)
        return line.wrongUsage(u"--close-after and --stop-after exclude each other."_s);
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
    return receiver.finish(QCoreApplication::exec());
}
