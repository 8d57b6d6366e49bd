#pragma once

#include <QList>
#include <QLocalServer>
#include <QObject>

class AdminServer;
class ConsoleLink;
class QJsonObject;
struct ModuleAction;

// Lets consoles attach to an administration server, through a control socket beside it.
//
// Owner:   AdminService.
// Thread:  main thread.
// Errors:  never throws. What a console does wrong, or does not read, harms nobody else.
class ControlServer : public QObject
{
    Q_OBJECT
public:
    explicit ControlServer(AdminServer &server);
    ~ControlServer() override;

    // Listens beside the server with this bus name. Otherwise the reason why not.
    [[nodiscard]] QString listen(const QString &name);
    // Listens again if the socket file has gone. The reason if that fails.
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
