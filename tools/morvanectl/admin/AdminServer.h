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
// Owner:   the subcommand admin.
// Thread:  main thread.
// Errors:  never throws. What a module does wrong ends its connection only.
class AdminServer : public ModuleBus
{
    Q_OBJECT
public:
    AdminServer();

    // Listens at once. Otherwise the reason why not: a name that is in use is not taken away.
    [[nodiscard]] QString listen(const QString &name);

    // Listens again if the socket file has gone. The reason if that fails.
    [[nodiscard]] QString repair();

    // Lost, and said, for a module that has stopped reading.
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
