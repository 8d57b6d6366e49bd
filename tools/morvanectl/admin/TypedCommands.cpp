#include "TypedCommands.h"

#include "AdminCommand.h"
#include "ModuleBus.h"
#include "NameGuess.h"
#include "Output.h"

#include <QCoreApplication>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestCommandLine = 4'096; // bytes
constexpr char help[] =
    R"(about [MODULE]                 let the module describe itself
watch on|off [MODULE]          get reports of records and link events, or no more
arrows on|off [MODULE]         get reports of every data frame, or no more
modules                        list the connected modules
send-command MODULE|all TEXT   send any other command, as it stands
stop MODULE|all                end modules; asks first
exit, Ctrl-D                   leave this tool: %1)";
constexpr char quitExplained[] =
    "\"exit\" leaves this tool: %1. \"stop MODULE\" and \"stop all\" end modules with status 0.";
constexpr qsizetype mostWaitingCommands = 1'000;

} // namespace

TypedCommands::TypedCommands(ModuleBus &moduleBus)
    : bus(moduleBus)
    , pipeInput(STDIN_FILENO, QSocketNotifier::Read)
    , lines(longestCommandLine)
{
    if (LineEditor::isPossible()) {
        inputEnded = true; // only the editor reads
        pipeInput.setEnabled(false);
        terminalEditor.emplace("> ");
        terminalEditor->candidates = [this](const QString &before) { return candidates(before); };
        connect(&*terminalEditor, &LineEditor::typed, this, &TypedCommands::takeTyped);
        connect(&*terminalEditor, &LineEditor::ended, this, [] { QCoreApplication::exit(0); });
    }
    connect(&pipeInput, &QSocketNotifier::activated, this, &TypedCommands::read);
    connect(&bus, &ModuleBus::moduleCame, this, &TypedCommands::sendWaiting);
}

void TypedCommands::read()
{
    char bytes[longestCommandLine];
    const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) {
        inputEnded = true;
        pipeInput.setEnabled(false);
        takeLine(lines.takeRest());
        if (::isatty(STDIN_FILENO))
            QCoreApplication::exit(0);
        return;
    }
    const bool isTyped = ::isatty(STDIN_FILENO) == 1;
    const bool allFit = lines.feed({bytes, count},
        [&](const QByteArray &line) { isTyped ? takeTyped(line) : takeLine(line); });
    if (!allFit)
        complain(u"admin: dropped a line of more than %1 bytes"_s.arg(longestCommandLine));
}

void TypedCommands::takeLine(const QByteArray &line)
{
    const QByteArray command = line.trimmed();
    if (command.isEmpty())
        return;
    waitingCommands.append(command);
    if (bus.modules().isEmpty())
        complain(u"admin: no module is connected; \"%1\" waits for one"_s.arg(printable(command)));
    sendWaiting();
}

// Takes a line from a person. Sends only known commands, and ends no module without asking.
void TypedCommands::takeTyped(const QByteArray &line)
{
    const QString text = QString::fromUtf8(line).simplified();
    const QString first = text.section(u' ', 0, 0);
    if (!commandToConfirm.isEmpty())
        return answer(text);
    if (first == "exit"_L1)
        return QCoreApplication::exit(0);
    if (first == "help"_L1)
        return say(QString::fromLatin1(help).arg(bus.fateOfModules()));
    if (first == "quit"_L1 || first == "QuitSignal"_L1)
        return say(QString::fromLatin1(quitExplained).arg(bus.fateOfModules()));
    if (first == "modules"_L1) {
        for (const qint64 module : bus.modules())
            say(bus.nameOf(module));
        return;
    }
    const std::optional<AdminCommand> command = AdminCommand::read(text);
    if (command && first == "stop"_L1)
        return askToStop(*command);
    if (command && !command->isKnown)
        return complain(u"admin: unknown command \"%1\"%2. See \"help\"."_s.arg(
            printable(first.toUtf8()), guessHint(first, AdminCommand::firstWords())));
    takeLine(line);
}

QStringList TypedCommands::candidates(const QString &before) const
{
    if (before.isEmpty())
        return AdminCommand::firstWords();
    if (before == "watch"_L1 || before == "arrows"_L1)
        return {u"on"_s, u"off"_s};
    QStringList names;
    for (const qint64 module : bus.modules())
        names += bus.nameOf(module);
    if (before == "stop"_L1 || before == "send-command"_L1)
        names += u"all"_s;
    return names;
}

void TypedCommands::askToStop(const AdminCommand &command)
{
    QStringList names;
    for (const qint64 module : bus.modules(command.module))
        names += bus.nameOf(module);
    if (names.isEmpty())
        return complain(u"admin: no such module is connected; see \"modules\""_s);
    commandToConfirm = "stop " + (command.module.isEmpty() ? QByteArray("all") : command.module);
    say(u"This ends %1 with status 0; a service manager does not start it again. Sure? [y/N]"_s.arg(
        names.join(u", "_s)));
}

void TypedCommands::answer(const QString &line)
{
    const QByteArray command = std::exchange(commandToConfirm, {});
    if (line == "y"_L1 || line == "yes"_L1)
        return takeLine(command);
    say(u"Nothing was stopped."_s);
}

void TypedCommands::sendWaiting()
{
    while (!waitingCommands.isEmpty() && !bus.modules().isEmpty())
        send(waitingCommands.takeFirst());
    pipeInput.setEnabled(!inputEnded && waitingCommands.size() < mostWaitingCommands);
}

void TypedCommands::send(const QByteArray &line)
{
    const std::optional<AdminCommand> command = AdminCommand::read(QString::fromUtf8(line));
    if (!command)
        complain(u"admin: \"%1\" is not a command; see \"morvanectl admin --help\""_s.arg(
            printable(line)));
    else if (bus.modules(command->module).isEmpty())
        complain(u"admin: no module \"%1\" is connected"_s.arg(printable(command->module)));
    else
        bus.send(command->name, command->module);
}
