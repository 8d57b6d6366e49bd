#pragma once

#include <QList>
#include <QLocalServer>
#include <QObject>

class AdminServer;
class ConsoleLink;
class QJsonObject;
struct ModuleAction;

// Lets consoles attach to an administration server, through a control socket next to its own.
//
// Owner:   AdminService.
// Errors:  a console that misbehaves or does not read harms nobody else.
class ControlServer : public QObject
{
    Q_OBJECT
public:
    explicit ControlServer(AdminServer &server);
    ~ControlServer() override;

    // Listens next to the server with this bus name. Returns why it cannot, or nothing.
    [[nodiscard]] QString listen(const QString &name);
    // Listens again if the socket file has gone. Returns why that fails, or nothing.
    [[nodiscard]] QString repair();

    [[nodiscard]] qsizetype consoles() const { return links.size(); }

Q_SIGNALS:
    // For a journal; who names the user and the process.
    void consoleCame(const QString &who);
    void consoleLeft(const QString &who);
    void commandTaken(const QString &who, const QByteArray &command, const QByteArray &module);

private:
    void accept();
    void forget(ConsoleLink *link);
    void tellAll(qint64 module, QJsonObject event);
    void tellOfAction(qint64 module, const ModuleAction &action);
    [[nodiscard]] bool canTell(const ConsoleLink *link) const;

    AdminServer &bus;
    QLocalServer server;
    QString serverName;
    QList<ConsoleLink *> links;
    qint32 idRangesGiven = 0;
};
