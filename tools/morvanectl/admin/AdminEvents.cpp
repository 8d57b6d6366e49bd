#include "AdminEvents.h"

#include "ModuleBus.h"
#include "ModuleEvent.h"
#include "Output.h"

using namespace Qt::StringLiterals;

namespace {

constexpr char green[] = "\x1b[32m";
constexpr char red[] = "\x1b[31m";
constexpr char bold[] = "\x1b[1m";
constexpr char faint[] = "\x1b[2m";
constexpr char plain[] = "\x1b[0m";

QString coloured(const QString &text, const char *colour)
{
    if (!hasColours() || *colour == '\0')
        return text;
    return QString::fromLatin1(colour) + text + QString::fromLatin1(plain);
}

QString describe(const ModuleAction &action)
{
    QString text = u"%1 id %2"_s.arg(printable(action.name), QString::number(action.id));
    if (!action.data.isEmpty())
        text += u", %1 of data"_s.arg(counted(action.data.size(), u"byte"_s));
    QString shown = printable(action.message);
    if (shown.endsWith(u'\n'))
        shown.chop(1);
    if (shown.contains(u'\n'))
        return text + u":\n    "_s + shown.replace(u"\n"_s, u"\n    "_s);
    return shown.isEmpty() ? text : text + u": "_s + shown;
}

// The journal records the time itself.
QString stamp()
{
    return isJournal() ? QString() : timeStamp() + u"  "_s;
}

void showLine(const QString &module, const QString &text, const char *colour = "")
{
    say(coloured(stamp(), faint) + coloured(module, bold) + u"  "_s + coloured(text, colour));
}

void showObject(const QJsonObject &event)
{
    say(QString::fromUtf8(ModuleEvent::line(event)).chopped(1));
}

} // namespace

AdminEvents::AdminEvents(const ModuleBus &moduleBus, bool json)
    : bus(moduleBus)
    , asJson(json)
{
    connect(&bus, &ModuleBus::moduleCame, this, &AdminEvents::noteArrival);
    connect(&bus, &ModuleBus::moduleRenamed, this, &AdminEvents::noteNewName);
    connect(&bus, &ModuleBus::moduleLeft, this,
        [this](qint64, const QByteArray &name) { noteLoss(name); });
    connect(&bus, &ModuleBus::actionCame, this, &AdminEvents::noteAction);
    connect(&bus, &ModuleBus::trouble, this,
        [](const QString &text) { complain(u"admin: "_s + text); });
}

void AdminEvents::show(const QString &text, const char *event, const QJsonObject &details) const
{
    if (asJson)
        return showObject(ModuleEvent::make(event, details));
    say(stamp() + text);
}

void AdminEvents::noteArrival(qint64 module) const
{
    if (asJson)
        return showObject(ModuleEvent::connected(bus.rawNameOf(module)));
    showLine(bus.nameOf(module), u"connected"_s, green);
}

void AdminEvents::noteNewName(qint64 module, const QByteArray &before) const
{
    if (asJson)
        return showObject(ModuleEvent::renamed(bus.rawNameOf(module), before));
    showLine(bus.nameOf(module), u"was %1 before"_s.arg(printable(before)));
}

void AdminEvents::noteLoss(const QByteArray &module) const
{
    if (asJson)
        return showObject(ModuleEvent::disconnected(module));
    showLine(printable(module), u"disconnected"_s, red);
}

void AdminEvents::noteAction(qint64 module, const ModuleAction &action) const
{
    if (asJson)
        return showObject(ModuleEvent::action(bus.rawNameOf(module), action));
    showLine(bus.nameOf(module), describe(action));
}
