#include "Status.h"

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

using Label = std::pair<QByteArray, QString>;

QByteArray escaped(const QString &value)
{
    return value.toUtf8().replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
}

// Writes the lines of all metrics of one module.
class Page
{
public:
    explicit Page(const QString &module)
        : moduleLabel("module=\"" + escaped(module) + '"')
    {
    }

    void begin(const QByteArray &metric, const QByteArray &type, const QByteArray &help)
    {
        name = "morvane_" + metric;
        text += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    }
    void add(double value, const QList<Label> &labels = {})
    {
        text += name + '{' + moduleLabel;
        for (const auto &[label, labelValue] : labels)
            text += ',' + label + "=\"" + escaped(labelValue) + '"';
        text += "} " + QByteArray::number(value, 'g', 17) + '\n';
    }
    void gauge(const QByteArray &metric, const QByteArray &help, double value,
        const QList<Label> &labels = {})
    {
        begin(metric, "gauge", help);
        add(value, labels);
    }
    void counter(const QByteArray &metric, const QByteArray &help, qint64 value)
    {
        begin(metric + "_total", "counter", help);
        add(double(value));
    }
    // Adds two counters: one of records and one of their bytes.
    void amount(const QByteArray &what, const QByteArray &help, const Counters::Amount &amount)
    {
        counter("records_" + what, "Records " + help, amount.records);
        counter("bytes_" + what, "Bytes of records " + help, amount.bytes);
    }

    QByteArray text;

private:
    const QByteArray moduleLabel;
    QByteArray name;
};

void addProcess(Page &page, const Status &status)
{
    page.gauge("info", "What the module is; always 1.", 1,
        {{"version", status.version}, {"protocol", status.protocol}, {"peer", status.peer}});
    page.gauge("up", "1 while the module runs, 0 after it has ended in order.", status.isRunning);
    page.gauge("start_time_seconds", "When the module was started.", double(status.startedAt));
    if (status.lastErrorAt != 0)
        page.gauge("last_error_time_seconds", "When the last error or warning happened, and what.",
            double(status.lastErrorAt), {{"error", status.lastError}});
}

void addRecordsIn(Page &page, const Counters &counters)
{
    page.amount("accepted", "taken from the bus.", counters.accepted);
    const std::pair<QString, Counters::Amount> refused[] = {{u"kind"_s, counters.unknownKind},
        {u"protocol"_s, counters.noTransport}, {u"lock"_s, counters.noLock},
        {u"file"_s, counters.noFile}};
    page.begin("records_refused_total", "counter", "Records from the bus that were dropped.");
    for (const auto &[reason, amount] : refused)
        page.add(double(amount.records), {{"reason", reason}});
    page.begin("bytes_refused_total", "counter", "Bytes of records that were dropped.");
    for (const auto &[reason, amount] : refused)
        page.add(double(amount.bytes), {{"reason", reason}});
}

void addWaiting(Page &page, const SpoolCensus &waiting, qint64 now)
{
    page.gauge("waiting_files", "Files that wait in the spool.", double(waiting.files));
    page.gauge(
        "waiting_bytes", "Bytes of the files that wait in the spool.", double(waiting.bytes));
    page.gauge("waiting_oldest_age_seconds", "Age of the file that waits longest, 0 if none waits.",
        waiting.files == 0 ? 0 : double(std::max<qint64>(now - waiting.oldest, 0)));
}

void addLink(Page &page, const Status &status)
{
    page.gauge("link_up", "Whether the TCP link to the peer is up.", status.isLinkUp);
    page.gauge("link_change_time_seconds", "Since when the link has been up or down.",
        double(status.linkChangedAt));
    const Counters &counters = status.counters;
    page.amount("sent", "that the link has taken, repetitions included.", counters.sent);
    page.amount("acknowledged", "that the peer has acknowledged.", counters.acknowledged);
    page.amount("given_back", "that the link had taken when it ended.", counters.givenBack);
    page.amount("repeated", "that were sent again.", counters.repeated);
    page.gauge("unacknowledged_records", "Records that wait for the peer's acknowledgement.",
        double(status.unacknowledged.records));
    page.gauge("unacknowledged_bytes", "Bytes of the records that wait for it.",
        double(status.unacknowledged.bytes));
    if (status.acknowledgedNumber)
        page.gauge("acknowledged_number", "Records of this link that the peer says it has stored.",
            double(*status.acknowledgedNumber));
}

void addTransfer(Page &page, const TransferCounters &udp, double rate)
{
    page.gauge("udp_bytes_per_second", "Bytes of data packets a second, lately.", rate);
    page.counter("udp_bytes_sent", "Bytes of data packets sent.", udp.bytesSent);
    page.counter("udp_packets_sent", "Data packets sent, repetitions included.", udp.packetsSent);
    page.counter("udp_packets_repeated", "Data packets sent again.", udp.packetsRepeated);
    page.counter("udp_files_delivered", "Files that the peer holds.", udp.filesDelivered);
    page.counter("udp_files_refused", "Files set aside as not to be sent.", udp.filesRefused);
    page.counter("udp_files_received", "Files that have come from the peer.", udp.filesReceived);
    page.gauge("udp_last_answer_time_seconds",
        "When a packet of the peer came last, 0 if none did.", double(udp.lastPeerPacket));
}

} // namespace

QByteArray Status::toPrometheus(qint64 now) const
{
    Page page(module);
    addProcess(page, *this);
    addRecordsIn(page, counters);
    addWaiting(page, waiting, now);
    if (udp)
        addTransfer(page, *udp, udpRate);
    else
        addLink(page, *this);
    return page.text;
}
