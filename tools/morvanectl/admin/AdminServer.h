#pragma once

#include "CommandIds.h"
#include "ModuleBus.h"

#include <QHash>

class TMyLocalServer;
class TMyLocalSocket;

// The administration server that modules connect to.
//
// A connection counts as a module once its name frame has arrived.
//
// Errors:  a module's mistakes end only its own connection.
class AdminServer : public ModuleBus
{
    Q_OBJECT
public:
    AdminServer();

    // Listens at once. Returns why it cannot, or nothing. It takes no name away that is in use.
    [[nodiscard]] QString listen(const QString &name);

    // Listens again if the socket file has gone. Returns why that fails, or nothing.
    [[nodiscard]] QString repair();

    // Skips a module that has stopped reading, and reports that by trouble().
    qint32 send(const QByteArray &command, const QByteArray &name) override;
    // The same with an id from somebody else's range.
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
