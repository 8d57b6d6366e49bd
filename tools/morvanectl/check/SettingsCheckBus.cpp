// The part of SettingsCheck for the names on the bus.
#include "BusName.h"
#include "SettingsCheck.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

// The module removes whatever has the name of its socket.
bool isInTheWay(const QString &path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 && !S_ISSOCK(info.st_mode);
}

} // namespace

void SettingsCheck::checkBus()
{
    if (const QString problem = busFolderProblem(); !problem.isEmpty())
        addBase(Severity::Error, BaseSettings::serverName, problem);
    const QString admin = settings.base(BaseSettings::adminServerName);
    const QString server = settings.base(BaseSettings::serverName);
    if (admin == BaseSettings::noName)
        addBase(Severity::Error, BaseSettings::adminServerName,
            u"\"AdminServerName\" is missing: the module listens only after it has reached its "
            "administration server"_s);
    else if (admin.isEmpty())
        addBase(Severity::Warning, BaseSettings::adminServerName,
            u"\"AdminServerName\" is empty: the module takes no commands and reports nothing"_s);
    else
        checkAdminServer(admin);
    checkServerName(server);
    if (!server.isEmpty() && server != BaseSettings::noName && server == admin)
        addBase(Severity::Error, BaseSettings::serverName,
            u"\"ServerName\" is also the administration server's: one takes it away from the "
            "other"_s);
    checkConnections(admin, server);
}

void SettingsCheck::checkAdminServer(const QString &name)
{
    checkBusName(BaseSettings::adminServerName, name);
    if (!busNameProblem(name).isEmpty() || !busFolderProblem().isEmpty())
        return;
    QLocalSocket probe;
    probe.connectToServer(name);
    if (probe.state() != QLocalSocket::UnconnectedState)
        return;
    addBase(Severity::Warning, BaseSettings::adminServerName,
        probe.error() == QLocalSocket::SocketAccessError
            ? connectionProblem(name, probe.error())
            : u"nobody serves \"%1\" (%2), as \"morvanectl admin %1 --serve\" does: the "
              "module does not listen until somebody does"_s.arg(name, busSocketPath(name)));
}

void SettingsCheck::checkServerName(const QString &name)
{
    if (name == BaseSettings::noName)
        return addBase(Severity::Error, BaseSettings::serverName,
            u"\"ServerName\" is missing: the module neither listens on the bus nor connects to "
            "anybody"_s);
    checkBusName(BaseSettings::serverName, name);
    if (!name.isEmpty() && isInTheWay(busSocketPath(name)))
        addBase(Severity::Error, BaseSettings::serverName,
            u"%1 is not a socket, and the module would remove it"_s.arg(busSocketPath(name)));
}

void SettingsCheck::checkConnections(const QString &admin, const QString &server)
{
    const QString list = settings.base(BaseSettings::connections);
    if (list == BaseSettings::noName || list.isEmpty())
        return;
    QStringList seen;
    if (list.contains(u','))
        addBase(Severity::Error, BaseSettings::connections,
            u"\"Connections\" holds a comma: one blank separates two names, and no name holds "
            "a comma"_s);
    const QStringList names = list.split(u' ');
    for (const QString &name : names) {
        if (name.isEmpty() && !seen.contains(name))
            addBase(Severity::Error, BaseSettings::connections,
                u"a doubled or outer blank in \"Connections\" is an empty name: nobody has it, so "
                "the module never listens"_s);
        else if (seen.contains(name) && !name.isEmpty())
            addBase(Severity::Warning, BaseSettings::connections,
                u"\"%1\" is in \"Connections\" more than once"_s.arg(name));
        else if (!name.isEmpty())
            checkBusName(BaseSettings::connections, name);
        seen.append(name);
    }
    if (!server.isEmpty() && seen.contains(server))
        addBase(Severity::Error, BaseSettings::connections,
            u"\"Connections\" holds the module's own \"ServerName\": it waits for itself and never "
            "listens"_s);
    if (!admin.isEmpty() && seen.contains(admin))
        addBase(Severity::Warning, BaseSettings::connections,
            u"\"Connections\" holds the \"AdminServerName\", which the module connects to "
            "anyway"_s);
}

void SettingsCheck::checkBusName(const Key &key, const QString &name)
{
    QString problem = busNameProblem(name);
    const QString folder = QFileInfo(busSocketPath(name)).path();
    if (problem.isEmpty() && !QFileInfo(folder).isDir())
        problem = u"the folder %1 for its socket does not exist"_s.arg(folder);
    if (!problem.isEmpty())
        addBase(Severity::Error, key,
            u"\"%1\" in \"%2\" cannot be a bus name: %3"_s.arg(name, key.name, problem));
}
