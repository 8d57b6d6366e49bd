#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

class ModuleBus;
struct ModuleAction;

// Shows what happens to the modules: one line or paragraph each for a person, in colour on a
// terminal, or one JSON object a line.
class AdminEvents : public QObject
{
    Q_OBJECT
public:
    AdminEvents(const ModuleBus &bus, bool json);

    // What happens to this process itself: the text for a person, and the event and its details.
    void show(const QString &text, const char *event, const QJsonObject &details) const;

private:
    void noteArrival(qint64 module) const;
    void noteNewName(qint64 module, const QByteArray &before) const;
    void noteLoss(const QByteArray &module) const;
    void noteAction(qint64 module, const ModuleAction &action) const;

    const ModuleBus &bus;
    const bool asJson;
};
