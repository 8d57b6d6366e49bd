#pragma once

#include <QByteArray>
#include <QString>

class QJsonObject;

// Shows what happens at the administration server: one line or paragraph each for a person, in
// colour on a terminal, or one JSON object a line.
//
// Owner:   AdminServer.
class AdminEvents
{
public:
    explicit AdminEvents(bool json)
        : asJson(json)
    {
    }

    void listening(const QString &name) const;
    void connected(const QByteArray &module) const;
    void renamed(const QByteArray &module, const QByteArray &before) const;
    void disconnected(const QByteArray &module) const;
    void action(const QByteArray &module, const QByteArray &name, const QByteArray &message,
        const QByteArray &data, int id) const;

private:
    void show(const QByteArray &module, const QString &text, const char *colour = "") const;
    void showJson(const char *event, const QByteArray &module, QJsonObject details) const;

    const bool asJson;
};
