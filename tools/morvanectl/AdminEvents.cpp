#include "AdminEvents.h"

#include "Output.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

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

QString describe(
    const QByteArray &action, const QByteArray &message, const QByteArray &data, int id)
{
    QString text = u"%1 id %2"_s.arg(printable(action), QString::number(id));
    if (!data.isEmpty())
        text += u", %1 of data"_s.arg(counted(data.size(), u"byte"_s));
    QString shown = printable(message);
    if (shown.endsWith(u'\n'))
        shown.chop(1);
    if (shown.contains(u'\n'))
        return text + u":\n    "_s + shown.replace(u"\n"_s, u"\n    "_s);
    return shown.isEmpty() ? text : text + u": "_s + shown;
}

} // namespace

void AdminEvents::listening(const QString &name) const
{
    if (asJson)
        return showJson("listening", {}, {{u"name"_s, name}});
    say(timeStamp() + u"  Listening as %1, waiting for modules"_s.arg(name));
}

void AdminEvents::connected(const QByteArray &module) const
{
    if (asJson)
        return showJson("connected", module, {});
    show(module, u"connected"_s, green);
}

void AdminEvents::renamed(const QByteArray &module, const QByteArray &before) const
{
    if (asJson)
        return showJson("renamed", module, {{u"before"_s, QString::fromUtf8(before)}});
    show(module, u"was %1 before"_s.arg(printable(before)));
}

void AdminEvents::disconnected(const QByteArray &module) const
{
    if (asJson)
        return showJson("disconnected", module, {});
    show(module, u"disconnected"_s, red);
}

void AdminEvents::action(const QByteArray &module, const QByteArray &name,
    const QByteArray &message, const QByteArray &data, int id) const
{
    if (!asJson)
        return show(module, describe(name, message, data, id));
    QJsonObject details{{u"action"_s, QString::fromUtf8(name)}, {u"id"_s, id},
        {u"message"_s, QString::fromUtf8(message)}};
    if (!data.isEmpty())
        details.insert(u"base64"_s, QString::fromLatin1(data.toBase64()));
    showJson("action", module, details);
}

void AdminEvents::show(const QByteArray &module, const QString &text, const char *colour) const
{
    say(coloured(timeStamp(), faint) + u"  "_s + coloured(printable(module), bold) + u"  "_s
        + coloured(text, colour));
}

void AdminEvents::showJson(const char *event, const QByteArray &module, QJsonObject details) const
{
    details.insert(u"time"_s, QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
    details.insert(u"event"_s, QString::fromLatin1(event));
    if (!module.isNull())
        details.insert(u"module"_s, QString::fromUtf8(module));
    say(QString::fromUtf8(QJsonDocument(details).toJson(QJsonDocument::Compact)));
}
