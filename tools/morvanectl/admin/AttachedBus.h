#pragma once

#include "CommandIds.h"
#include "LineCutter.h"
#include "ModuleBus.h"

#include <QLocalSocket>

class QJsonObject;

// The modules at an administration server that runs elsewhere, seen through its control socket.
//
// Thread:  attach() blocks until the server answers, five seconds at most for each step.
// Errors:  lost() comes when the server goes.
class AttachedBus : public ModuleBus
{
    Q_OBJECT
public:
    enum class Outcome { Attached, NobodyThere, Failed };

    AttachedBus();
    ~AttachedBus() override;

    // Does not announce the modules that are already there. Emits events from the event loop only.
    [[nodiscard]] Outcome attach(const QString &serverName);
    // Why attach() has failed.
    [[nodiscard]] QString problem() const { return reason; }

    qint32 send(const QByteArray &command, const QByteArray &name) override;
    [[nodiscard]] QString fateOfModules() const override
    {
        return QStringLiteral("the modules stay");
    }

Q_SIGNALS:
    void lost();

private:
    [[nodiscard]] Outcome fail(const QString &text);
    [[nodiscard]] QJsonObject readGreeting();
    void read();
    void takeLine(const QByteArray &line);
    void takeEvent(const QString &event, const QJsonObject &object);
    void takeModules(const QJsonObject &object);

    QLocalSocket socket;
    QString reason;
    LineCutter lines;
    CommandIds ids;
};
