#include "AdminService.h"

#include "Output.h"
#include "ServiceManager.h"

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto repairInterval = 2s;
constexpr int signsOfLifePerPatience = 3;
constexpr qsizetype mostNamesInStatus = 10;

// A command with line feeds must not look like several lines of this service.
QString onOneLine(const QByteArray &text)
{
    return printable(text).replace(u'\n', u"\\n"_s);
}

} // namespace

AdminService::AdminService(bool asJson)
    : events(server, asJson)
    , control(server)
{
    connect(&repairTimer, &QTimer::timeout, this, &AdminService::repair);
    connect(&aliveTimer, &QTimer::timeout, this, &ServiceManager::sayAlive);
    connect(&server, &ModuleBus::moduleCame, this, &AdminService::showStatus);
    connect(&server, &ModuleBus::moduleRenamed, this, &AdminService::showStatus);
    connect(&server, &ModuleBus::moduleLeft, this, &AdminService::showStatus);
    connect(&control, &ControlServer::consoleCame, this, [this](const QString &who) {
        noteConsole("attached", u"Console attached (%1)"_s.arg(who), who);
    });
    connect(&control, &ControlServer::consoleLeft, this, [this](const QString &who) {
        noteConsole("detached", u"Console detached (%1)"_s.arg(who), who);
    });
    connect(&control, &ControlServer::commandTaken, this,
        [this](const QString &who, const QByteArray &command, const QByteArray &module) {
            const QString to = module.isEmpty() ? u"all"_s : onOneLine(module);
            events.show(u"Command %1 to %2 (%3)"_s.arg(onOneLine(command), to, who), "command",
                {{u"command"_s, QString::fromUtf8(command)}, {u"to"_s, to}, {u"who"_s, who}});
        });
}

QString AdminService::listen(const QString &name)
{
    if (const QString problem = server.listen(name); !problem.isEmpty())
        return problem;
    if (const QString problem = control.listen(name); !problem.isEmpty())
        return u"the control socket: "_s + problem;
    events.show(u"Listening as %1, waiting for modules and consoles"_s.arg(name), "listening",
        {{u"name"_s, name}});
    repairTimer.start(repairInterval);
    if (const auto patience = ServiceManager::watchdogTime(); patience > 0ms)
        aliveTimer.start(patience / signsOfLifePerPatience);
    showStatus();
    return {};
}

void AdminService::repair()
{
    QString problem = server.repair();
    if (const QString other = control.repair(); problem.isEmpty())
        problem = other;
    if (std::exchange(reportedProblem, problem) != problem && !problem.isEmpty())
        complain(u"admin: cannot listen any more, trying again: "_s + problem);
}

void AdminService::showStatus()
{
    const QList<qint64> present = server.modules();
    QStringList names;
    for (const qint64 module : present.first(std::min(present.size(), mostNamesInStatus)))
        names += server.nameOf(module);
    if (present.size() > mostNamesInStatus)
        names += u"..."_s;
    const QString list = names.isEmpty() ? QString() : u" ("_s + names.join(u", "_s) + u')';
    ServiceManager::showStatus(counted(present.size(), u"module"_s) + list + u", "_s
        + counted(control.consoles(), u"console"_s));
}

void AdminService::noteConsole(const char *event, const QString &text, const QString &who)
{
    events.show(text, event, {{u"who"_s, who}});
    showStatus();
}
