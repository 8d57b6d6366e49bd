#include "ControlServer.h"

#include "AdminServer.h"
#include "BusName.h"
#include "ConsoleLink.h"
#include "ControlProtocol.h"
#include "ModuleEvent.h"

#include <QLocalSocket>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype mostConsoles = 16;
constexpr qint64 maxUnreadBytesOfAll = 67'108'864;

} // namespace

ControlServer::ControlServer(AdminServer &adminServer)
    : bus(adminServer)
{
    connect(&server, &QLocalServer::newConnection, this, &ControlServer::accept);
    connect(&bus, &ModuleBus::moduleCame, this,
        [this](qint64 module) { tellAll(module, ModuleEvent::connected(bus.rawNameOf(module))); });
    connect(&bus, &ModuleBus::moduleRenamed, this, [this](qint64 module, const QByteArray &before) {
        tellAll(module, ModuleEvent::renamed(bus.rawNameOf(module), before));
    });
    connect(&bus, &ModuleBus::moduleLeft, this, [this](qint64 module, const QByteArray &left) {
        tellAll(module, ModuleEvent::disconnected(left));
    });
    connect(&bus, &ModuleBus::actionCame, this, &ControlServer::tellOfAction);
    connect(&bus, &ModuleBus::trouble, this, [this](const QString &text) {
        tellAll(0, ModuleEvent::make("error", {{u"message"_s, text}}));
    });
}

// The links' sockets emit signals while they are destroyed.
ControlServer::~ControlServer()
{
    for (ConsoleLink *link : std::as_const(links))
        link->disconnect(this);
    qDeleteAll(links);
}

QString ControlServer::listen(const QString &name)
{
    serverName = name;
    return listenOnBus(server, ControlProtocol::socketName(serverName));
}

QString ControlServer::repair()
{
    return keepListening(server, ControlProtocol::socketName(serverName));
}

void ControlServer::accept()
{
    while (QLocalSocket *socket = server.nextPendingConnection()) {
        idRangesGiven =
            idRangesGiven % (CommandIds::rangeCount - 1) + 1; // the server has the first one
        auto *link = new ConsoleLink(socket, bus, CommandIds(idRangesGiven));
        if (links.size() >= mostConsoles) {
            connect(link, &ConsoleLink::ended, link, &QObject::deleteLater);
            link->setParent(this);
            link->refuse(u"%1 consoles are attached, which is the limit"_s.arg(mostConsoles));
            continue;
        }
        links.append(link);
        connect(link, &ConsoleLink::ended, this, [this, link] { forget(link); });
        connect(link, &ConsoleLink::commandTaken, this,
            [this, link](const QByteArray &command, const QByteArray &module) {
                Q_EMIT commandTaken(link->who(), command, module);
            });
        link->greet(serverName);
        Q_EMIT consoleCame(link->who());
    }
}

void ControlServer::forget(ConsoleLink *link)
{
    links.removeOne(link);
    link->deleteLater();
    Q_EMIT consoleLeft(link->who());
}

// Adds the module's key to the event, because several modules may have the same name.
void ControlServer::tellAll(qint64 module, QJsonObject event)
{
    if (links.isEmpty())
        return;
    if (module != 0)
        event.insert(u"key"_s, module);
    const QByteArray line = ModuleEvent::line(event);
    for (ConsoleLink *link : std::as_const(links)) {
        if (canTell(link))
            link->tell(line);
        else
            link->miss();
    }
}

// The action's data may be large, so no line is made of it unless a console gets it.
void ControlServer::tellOfAction(qint64 module, const ModuleAction &action)
{
    if (std::none_of(links.begin(), links.end(), [this](auto *link) { return canTell(link); })) {
        for (ConsoleLink *link : std::as_const(links))
            link->miss();
        return;
    }
    ModuleAction passed = action;
    passed.name.truncate(ControlProtocol::longestPassedText);
    passed.message.truncate(ControlProtocol::longestPassedText);
    tellAll(module, ModuleEvent::action(bus.rawNameOf(module), passed));
}

// A console that has read everything always gets the event, whatever others leave unread.
bool ControlServer::canTell(const ConsoleLink *link) const
{
    if (link->unreadBytes() == 0)
        return true;
    qint64 unread = 0;
    for (const ConsoleLink *other : links)
        unread += other->unreadBytes();
    return link->isKeepingUp() && unread <= maxUnreadBytesOfAll;
}
