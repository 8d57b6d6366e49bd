#pragma once

#include "CommandIds.h"
#include "LineCutter.h"
#include "ModuleBus.h"

#include <QLocalSocket>

class QJsonObject;

// The modules at an administration server that runs elsewhere, seen through its control socket.
//
// Owner:   the subcommand admin.
// Thread:  main thread; attach() waits for the server, some seconds at most.
// Errors:  never throws. lost() comes when the server goes.
class AttachedBus : public ModuleBus
{
    Q_OBJECT
public:
    enum class Outcome { Attached, NobodyThere, Failed };

    AttachedBus();
    ~AttachedBus() override;

    // The modules that are there already are not announced. Events come from the event loop only.
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
