#pragma once

#include <QList>
#include <QLocalServer>
#include <QObject>

class AdminServer;
class ConsoleLink;
class QJsonObject;
struct ModuleAction;

// Lets consoles attach to an administration server, through a control socket beside its own. A
// console that misbehaves or does not read does not affect others.
class ControlServer : public QObject
{
    Q_OBJECT
public:
    explicit ControlServer(AdminServer &server);
    ~ControlServer() override;

    // Listens beside the server with this bus name. Returns why it cannot; empty on success.
    [[nodiscard]] QString listen(const QString &name);
    // Listens again if the socket file has gone. Returns why that fails; empty on success.
    [[nodiscard]] QString repair();

    [[nodiscard]] qsizetype consoles() const { return links.size(); }

Q_SIGNALS:
    // `who` names the user and the process of the console.
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
