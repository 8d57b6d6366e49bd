#pragma once

#include "AdminEvents.h"

#include <QHash>
#include <QObject>

class TConnector;
class TMyLocalServer;
class TMyLocalSocket;

// The administration server that modules connect to: says every module that comes and goes and
// every action, and sends commands.
//
// A connection counts as a module once its name frame has arrived.
//
// Owner:   the subcommand admin.
// Thread:  main thread.
// Errors:  never throws. What a module does wrong ends its connection only.
class AdminServer : public QObject
{
    Q_OBJECT
public:
    // Shows what happens as text or as JSON.
    explicit AdminServer(bool asJson);
    ~AdminServer() override;

    // Listens at once. Otherwise the reason why not: a name that is in use is not taken away.
    [[nodiscard]] QString listen(const QString &name);

    // Those of a name, or all.
    [[nodiscard]] QList<TMyLocalSocket *> modules(const QByteArray &name = {}) const
    {
        return name.isEmpty() ? names.keys() : names.keys(name);
    }
    [[nodiscard]] QString nameOf(TMyLocalSocket *module) const;

    // To the modules of a name, or all, at once; lost, and said, for one that has stopped reading.
    void send(const QByteArray &command, qint32 id, const QByteArray &name);

Q_SIGNALS:
    void moduleCame();
    void moduleLeft(TMyLocalSocket *module);
    void actionCame(const QByteArray &action, int id, TMyLocalSocket *module);

private:
    void accept(TMyLocalSocket *socket);
    void noteName(TMyLocalSocket *socket);
    void noteAction(const QByteArray &action, const QByteArray &message, const QByteArray &data,
        int id, TMyLocalSocket *socket);
    void noteLoss(TMyLocalSocket *socket);

    const AdminEvents events;
    TConnector *connector; // cuts the frames; its own passes and its own server stay unused
    TMyLocalServer *server;
    QHash<TMyLocalSocket *, QByteArray> names; // of the modules, as last announced
};
