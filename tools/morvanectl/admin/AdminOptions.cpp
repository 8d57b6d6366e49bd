#include "AdminOptions.h"

#include "BusName.h"
#include "CommandLine.h"
#include "ControlProtocol.h"

using namespace Qt::StringLiterals;

namespace {

bool readCommands(CommandLine &line, QList<AdminCommand> &commands)
{
    const QStringList texts = AdminCommand::textsOf(line.positionals().sliced(1));
    for (const QString &text : texts) {
        const std::optional<AdminCommand> command = AdminCommand::read(text);
        if (!command)
            return line.wrongUsage(
                u"\"%1\" is not a command. Put quotes around one of several words."_s.arg(text));
        commands.append(*command);
    }
    return true;
}

} // namespace

void addAdminOptions(CommandLine &line)
{
    line.addValue(u"wait"_s, u"SECONDS"_s,
        u"Wait up to SECONDS for a module, and for the effect of each COMMAND (default 30)."_s,
        u"30"_s);
    line.addValue(u"for"_s, u"SECONDS"_s, u"Stay for SECONDS after the COMMANDs, then exit."_s);
    line.addFlag(u"stay"_s, u"Stay after the COMMANDs until stopped."_s);
    line.addFlag(u"serve"_s, u"Be the administration server until stopped, without a console."_s);
    line.addFlag(u"json"_s, u"Print each event as one line with a JSON object."_s);
}

bool readAdminOptions(CommandLine &line, AdminOptions &options)
{
    if (!readCommands(line, options.commands))
        return false;
    const std::optional<int> wait = line.number(u"wait"_s, 1, longestSeconds);
    const std::optional<int> period =
        line.isSet(u"for"_s) ? line.number(u"for"_s, 1, longestSeconds) : 0;
    if (!wait || !period)
        return false;
    const bool stays = line.isSet(u"stay"_s);
    options.name = line.positionals().constFirst();
    options.stepLimitSeconds = *wait;
    options.staySeconds = *period;
    options.leavesAfterwards = *period > 0 || (!options.commands.isEmpty() && !stays);
    options.serves = line.isSet(u"serve"_s);
    options.asJson = line.isSet(u"json"_s);
    if (stays && *period > 0)
        return line.wrongUsage(u"--stay and --for cannot be used together."_s);
    if (options.serves && (!options.commands.isEmpty() || *period > 0 || stays))
        return line.wrongUsage(
            u"--serve takes no COMMANDs, and cannot be used with --stay or --for."_s);
    const QString longest =
        options.serves ? ControlProtocol::socketName(options.name) : options.name;
    if (const QString problem = busNameProblem(longest); !problem.isEmpty())
        return line.wrongUsage(u"\"%1\": %2."_s.arg(longest, problem));
    return true;
}
