#pragma once

#include "AdminEvents.h"
#include "AdminServer.h"
#include "ControlServer.h"

#include <QTimer>

// An administration server that stays: consoles attach to it and detach, a service manager hears of
// it, and what happens is written to standard output.
//
// Owner:   the subcommand admin.
// Thread:  main thread.
// Errors:  never throws. A socket file that somebody removes is made again.
class AdminService : public QObject
{
    Q_OBJECT
public:
    explicit AdminService(bool asJson);

    // Listens under the bus name. Otherwise the reason why not.
    [[nodiscard]] QString listen(const QString &name);

    [[nodiscard]] const AdminServer &modules() const { return server; }

private:
    void repair();
    void showStatus();
    void noteConsole(const char *event, const QString &text, const QString &who);

    AdminServer server;
    const AdminEvents events;
    ControlServer control;
    QTimer repairTimer;
    QTimer aliveTimer;
    QString reportedProblem;
};
