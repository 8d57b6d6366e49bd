#pragma once

#include "AdminEvents.h"
#include "AdminServer.h"
#include "ControlServer.h"

#include <QTimer>

// Runs an administration server: lets consoles attach and detach, informs the service manager, and
// writes what happens to standard output. Creates a removed socket file again.
class AdminService : public QObject
{
    Q_OBJECT
public:
    explicit AdminService(bool asJson);

    // Returns why it cannot listen under the bus name; empty on success.
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
