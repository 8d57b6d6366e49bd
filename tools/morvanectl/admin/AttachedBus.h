#pragma once

#include "CommandIds.h"
#include "LineCutter.h"
#include "ModuleBus.h"

#include <QLocalSocket>

class QJsonObject;

// The modules at an administration server in another process, seen through its control socket.
class AttachedBus : public ModuleBus
{
    Q_OBJECT
public:
    enum class Outcome { Attached, NobodyThere, Failed };

    AttachedBus();
    ~AttachedBus() override;

    // Blocks until the server answers, for at most five seconds in each of two steps. Emits nothing
    // for the modules that are already connected; later signals come from the event loop.
    [[nodiscard]] Outcome attach(const QString &serverName);
    // Returns why attach() has failed.
    [[nodiscard]] QString problem() const { return reason; }

    qint32 send(const QByteArray &command, const QByteArray &name) override;
    [[nodiscard]] QString fateOfModules() const override
    {
        return QStringLiteral("the modules stay");
    }

Q_SIGNALS:
    // The server has gone.
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
