#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

class ModuleBus;
struct ModuleAction;

// Shows what happens to the modules: as lines for a person, in colour on a terminal, or as one JSON
// object in each line.
class AdminEvents : public QObject
{
    Q_OBJECT
public:
    AdminEvents(const ModuleBus &bus, bool json);

    // Shows an event of this process itself: the text to a person, the rest as JSON.
    void show(const QString &text, const char *event, const QJsonObject &details) const;

private:
    void noteArrival(qint64 module) const;
    void noteNewName(qint64 module, const QByteArray &before) const;
    void noteLoss(const QByteArray &module) const;
    void noteAction(qint64 module, const ModuleAction &action) const;

    const ModuleBus &bus;
    const bool asJson;
};
