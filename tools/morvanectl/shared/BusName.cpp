#include "BusName.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>

#include <algorithm>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

const QString serviceBus = u"/run/morvane"_s; // as in packaging/morvane@.service
constexpr qsizetype longestSocketPath = 106; // bytes; the kernel's limit

constexpr mode_t withoutOthers = 0007;

// A module reads names in its settings as Latin-1, so other characters lead to different files.
bool isPlainAscii(const QString &name)
{
    return std::all_of(name.begin(), name.end(), [](QChar c) { return c > u' ' && c < u'\x7f'; });
}

// Removes the socket file of a dead server. Returns why the name is not free; empty if it is.
QString clearName(const QString &name)
{
    QLocalSocket probe;
    probe.connectToServer(name);
    if (probe.state() != QLocalSocket::UnconnectedState)
        return u"a live server has this name"_s;
    if (probe.error() == QLocalSocket::ServerNotFoundError)
        return {};
    if (probe.error() == QLocalSocket::SocketAccessError)
        return connectionProblem(name, probe.error());
    const QString path = busSocketPath(name);
    struct stat info;
    if (probe.error() != QLocalSocket::ConnectionRefusedError
        || ::lstat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISSOCK(info.st_mode))
        return u"%1 is in the way: %2"_s.arg(path, probe.errorString());
    QLocalServer::removeServer(name);
    return {};
}

} // namespace

QString busSocketPath(const QString &name)
{
    // Composed as QLocalSocket does, which does not check that the folder exists.
    return QDir::isAbsolutePath(name) ? name : QDir::tempPath() + u'/' + name;
}

QString busFolderProblem()
{
    const QString folder = qEnvironmentVariable("TMPDIR");
    if (folder.isEmpty() || QFileInfo(folder).isDir())
        return {};
    return u"TMPDIR names %1, which is not a folder: the bus sockets would be in /"_s.arg(folder);
}

QString connectionProblem(const QString &name, QLocalSocket::LocalSocketError error)
{
    const QString path = busSocketPath(name);
    if (error == QLocalSocket::SocketAccessError)
        return u"permission denied for %1: only the module's user, its group and root may connect"_s
            .arg(path);
    if (const QString problem = busFolderProblem(); !problem.isEmpty())
        return problem;
    const bool mayBeService =
        qEnvironmentVariableIsEmpty("TMPDIR") && QFileInfo(serviceBus).isDir();
    return u"no module listens under this name (%1)"_s.arg(path)
        + (mayBeService ? u"; to reach those of the service, set TMPDIR=%1"_s.arg(serviceBus)
                        : QString());
}

QString busNameProblem(const QString &name)
{
    if (name.isEmpty() || !isPlainAscii(name))
        return u"a bus name must not be empty, and may hold only ASCII characters and no blanks"_s;
    const QByteArray path = busSocketPath(name).toLocal8Bit();
    if (path.size() > longestSocketPath)
        return u"the socket's path %1 has %2 bytes; the limit is %3 (see TMPDIR)"_s.arg(
            QString::fromLocal8Bit(path), QString::number(path.size()),
            QString::number(longestSocketPath));
    return {};
}

QString listenOnBus(QLocalServer &server, const QString &name)
{
    if (const QString problem = busFolderProblem(); !problem.isEmpty())
        return problem;
    if (const QString problem = clearName(name); !problem.isEmpty())
        return problem;
    // The modules of the service run as another user in the same group.
    const mode_t mask = ::umask(withoutOthers);
    const bool listens = server.listen(name);
    ::umask(mask);
    if (listens)
        return {};
    return u"%1 (%2)"_s.arg(server.errorString(), busSocketPath(name));
}

QString keepListening(QLocalServer &server, const QString &name)
{
    if (server.isListening() && QFileInfo::exists(busSocketPath(name)))
        return {};
    server.close();
    return listenOnBus(server, name);
}
