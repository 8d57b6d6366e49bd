#include "SpoolState.h"

#include "Output.h"
#include "UdpPace.h"

#include <QJsonArray>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

QString shownName(const QString &name)
{
    return printable(name.toUtf8()).replace(u'\n', u"\\n"_s);
}

QString shownAge(SpoolState::Age age)
{
    return UdpPace::text(std::max(age, SpoolState::Age(0)));
}

QString shownSize(qint64 files, qint64 bytes)
{
    return u"%1, %2"_s.arg(counted(files, u"file"_s), counted(bytes, u"byte"_s));
}

double secondsOf(std::chrono::milliseconds time)
{
    return double(time.count()) / 1'000;
}

QJsonObject jsonOf(const SpoolState::File &file)
{
    return {{u"name"_s, file.name}, {u"bytes"_s, file.bytes}, {u"age"_s, secondsOf(file.age)}};
}

template <typename Items, typename ToJson> QJsonArray jsonOf(const Items &items, ToJson toJson)
{
    QJsonArray array;
    for (const auto &item : items)
        array.append(toJson(item));
    return array;
}

// Lines with titles. Consecutive lines with the same title show it once.
class Table
{
public:
    void add(const QString &title, const QString &text)
    {
        lines.append(u"%1 %2"_s.arg(title == lastTitle ? QString() : title, -8).arg(text));
        lastTitle = title;
    }
    QStringList lines;

private:
    QString lastTitle;
};

void addWaiting(Table &table, const SpoolState &state)
{
    table.add(u"waiting"_s, shownSize(state.files, state.bytes));
    if (state.oldest)
        table.add(u"oldest"_s,
            u"%1, %2 old"_s.arg(shownName(state.oldest->name), shownAge(state.oldest->age)));
    for (const SpoolState::File &file : state.firstToBeSent)
        table.add(u"first"_s,
            u"%1  %2  %3 old"_s.arg(
                shownName(file.name), counted(file.bytes, u"byte"_s), shownAge(file.age)));
}

void addTransfer(Table &table, const SpoolState::Transfer &transfer)
{
    const QString limit = transfer.isUpperBound ? u"at most "_s : u""_s;
    const QString packets = limit + counted(transfer.packets, u"packet"_s);
    table.add(u"UDP"_s,
        transfer.duration ? u"%1, %2%3 over an undisturbed link"_s.arg(
            packets, limit, UdpPace::text(*transfer.duration))
                          : u"%1, as fast as the link carries them"_s.arg(packets));
}

QString toText(const SpoolState::Unacknowledged &sent)
{
    if (!sent.problem.isEmpty())
        return u"%1 cannot be read: %2"_s.arg(shownName(sent.folder), sent.problem);
    return u"%1 in %2, not acknowledged; %3"_s.arg(shownSize(sent.files, sent.bytes),
        shownName(sent.folder),
        sent.hasLivingOwner
            ? u"the module that sent them runs"_s
            : u"their module has ended; its next start puts them back into the spool"_s);
}

} // namespace

QString SpoolState::toText() const
{
    Table table;
    table.add(u"spool"_s, shownName(path));
    addWaiting(table, *this);
    for (const Unacknowledged &sent : unacknowledged)
        table.add(u"sent"_s, ::toText(sent));
    for (const Refused &aside : refused)
        table.add(u"refused"_s,
            u"%1  %2  %3"_s.arg(shownName(aside.file.name), counted(aside.file.bytes, u"byte"_s),
                aside.reason.isEmpty() ? u"for a reason that is no longer known"_s : aside.reason));
    if (lockAge)
        table.add(u"lock"_s, u"held, %1 old"_s.arg(shownAge(*lockAge)));
    if (udpTransfer)
        addTransfer(table, *udpTransfer);
    return table.lines.join(u'\n');
}

QJsonObject SpoolState::toJson() const
{
    const auto refusedToJson = [](const Refused &aside) {
        QJsonObject object = jsonOf(aside.file);
        object.insert(u"reason"_s, aside.reason.isEmpty() ? QJsonValue() : aside.reason);
        return object;
    };
    const auto sentToJson = [](const Unacknowledged &sent) {
        QJsonObject object{{u"folder"_s, sent.folder}, {u"files"_s, sent.files},
            {u"bytes"_s, sent.bytes}, {u"ownerLives"_s, sent.hasLivingOwner}};
        if (!sent.problem.isEmpty())
            object.insert(u"problem"_s, sent.problem);
        return object;
    };
    QJsonObject object{{u"spool"_s, path}, {u"files"_s, files}, {u"bytes"_s, bytes},
        {u"oldest"_s, oldest ? QJsonValue(jsonOf(*oldest)) : QJsonValue()},
        {u"first"_s, jsonOf(firstToBeSent, [](const File &file) { return jsonOf(file); })},
        {u"refused"_s, jsonOf(refused, refusedToJson)},
        {u"unacknowledged"_s, jsonOf(unacknowledged, sentToJson)},
        {u"lockAge"_s, lockAge ? QJsonValue(secondsOf(*lockAge)) : QJsonValue()}};
    if (udpTransfer)
        object.insert(u"udp"_s,
            QJsonObject{{u"packets"_s, udpTransfer->packets},
                {u"seconds"_s,
                    udpTransfer->duration ? secondsOf(*udpTransfer->duration) : QJsonValue()},
                {u"upperBound"_s, udpTransfer->isUpperBound}});
    return object;
}
