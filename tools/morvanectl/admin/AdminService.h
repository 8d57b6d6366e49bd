#pragma once

#include "AdminEvents.h"
#include "AdminServer.h"
#include "ControlServer.h"

#include <QTimer>

// Runs an administration server until it is stopped: lets consoles attach and detach, keeps the
// service manager informed, and writes what happens to standard output.
//
// Errors:  a removed socket file is created again.
class AdminService : public QObject
{
    Q_OBJECT
public:
    explicit AdminService(bool asJson);

    // Listens under the bus name. Returns why it cannot, or nothing.
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
