#include "TypedCommands.h"

#include "AdminCommand.h"
#include "AdminServer.h"
#include "Output.h"

#include <QCoreApplication>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestCommand = 4'096; // bytes of one typed line
constexpr qsizetype mostWaiting = 1'000; // commands typed before a module is there

} // namespace

TypedCommands::TypedCommands(AdminServer &adminServer, qint32 firstId)
    : server(adminServer)
    , input(STDIN_FILENO, QSocketNotifier::Read)
    , id(firstId)
{
    if (LineEditor::isPossible()) {
        ended = true; // nothing is read past the editor
        input.setEnabled(false);
        editor.emplace("> ");
        connect(&*editor, &LineEditor::typed, this, &TypedCommands::takeLine);
        connect(&*editor, &LineEditor::ended, this, [] { QCoreApplication::exit(0); });
    }
    connect(&input, &QSocketNotifier::activated, this, &TypedCommands::read);
    connect(&server, &AdminServer::moduleCame, this, &TypedCommands::sendWaiting);
}

void TypedCommands::read()
{
    char bytes[longestCommand];
    const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) {
        ended = true;
        input.setEnabled(false);
        takeLine(std::exchange(unfinished, {}));
        if (::isatty(STDIN_FILENO))
            QCoreApplication::exit(0);
        return;
    }
    unfinished.append(bytes, count);
    for (qsizetype end; (end = unfinished.indexOf('\n')) >= 0; unfinished.remove(0, end + 1))
        takeLine(unfinished.left(end));
    if (unfinished.size() <= longestCommand)
        return;
    complain(u"admin: a line of more than %1 bytes is no command"_s.arg(longestCommand));
    discarding = true;
    unfinished.clear();
}

void TypedCommands::takeLine(const QByteArray &line)
{
    const QByteArray command = line.trimmed();
    if (std::exchange(discarding, false) || command.isEmpty())
        return;
    waiting.append(command);
    if (server.modules().isEmpty())
        complain(u"admin: no module is connected, \"%1\" waits for one"_s.arg(printable(command)));
    sendWaiting();
}

void TypedCommands::sendWaiting()
{
    while (!waiting.isEmpty() && !server.modules().isEmpty())
        send(waiting.takeFirst());
    input.setEnabled(!ended && waiting.size() < mostWaiting);
}

void TypedCommands::send(const QByteArray &line)
{
    const std::optional<AdminCommand> command = AdminCommand::read(QString::fromUtf8(line));
    if (!command)
        complain(u"admin: \"%1\" is no command, see --help"_s.arg(printable(line)));
    else if (server.modules(command->module).isEmpty())
        complain(u"admin: no module \"%1\" is connected"_s.arg(printable(command->module)));
    else
        server.send(command->name, id++, command->module);
}
