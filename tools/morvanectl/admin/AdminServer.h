#pragma once

#include "CommandIds.h"
#include "ModuleBus.h"

#include <QHash>

class TMyLocalServer;
class TMyLocalSocket;

// The administration server that modules connect to. A connection counts as a module once its name
// frame has arrived. A module's mistakes end only its own connection.
class AdminServer : public ModuleBus
{
    Q_OBJECT
public:
    AdminServer();

    // Returns why it cannot listen; empty on success. Takes no name that is in use.
    [[nodiscard]] QString listen(const QString &name);

    // Listens again if the socket file has gone. Returns why that fails; empty on success.
    [[nodiscard]] QString repair();

    // Skips a module that has stopped reading, and emits trouble().
    qint32 send(const QByteArray &command, const QByteArray &name) override;
    // Sends with an id from the range of a console.
    void sendAs(qint32 id, const QByteArray &command, const QByteArray &name);

    [[nodiscard]] QString fateOfModules() const override
    {
        return QStringLiteral("the modules end with status 5");
    }

private:
    void accept(TMyLocalSocket *socket);
    void read(TMyLocalSocket *socket);

    TMyLocalServer *server;
    QHash<TMyLocalSocket *, Key> keys;
    QString ownName;
    Key lastKey = 0;
    CommandIds ids;
};
