#include "ModuleEvent.h"

#include "ModuleBus.h"

#include <QDateTime>
#include <QJsonDocument>

using namespace Qt::StringLiterals;

namespace ModuleEvent {

QJsonObject make(const char *event, const QJsonObject &details)
{
    QJsonObject object = details;
    object.insert(u"time"_s, QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
    object.insert(u"event"_s, QString::fromLatin1(event));
    return object;
}

QJsonObject connected(const QByteArray &module)
{
    return make("connected", {{u"module"_s, QString::fromUtf8(module)}});
}

QJsonObject renamed(const QByteArray &module, const QByteArray &before)
{
    return make("renamed",
        {{u"module"_s, QString::fromUtf8(module)}, {u"before"_s, QString::fromUtf8(before)}});
}

QJsonObject disconnected(const QByteArray &module)
{
    return make("disconnected", {{u"module"_s, QString::fromUtf8(module)}});
}

QJsonObject action(const QByteArray &module, const ModuleAction &action)
{
    QJsonObject object = make("action",
        {{u"module"_s, QString::fromUtf8(module)}, {u"action"_s, QString::fromUtf8(action.name)},
            {u"id"_s, action.id}, {u"message"_s, QString::fromUtf8(action.message)}});
    if (!action.data.isEmpty())
        object.insert(u"base64"_s, QString::fromLatin1(action.data.toBase64()));
    return object;
}

QByteArray line(const QJsonObject &event)
{
    return QJsonDocument(event).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace ModuleEvent
