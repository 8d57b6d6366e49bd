#include "CommandLine.h"

#include "NameGuess.h"
#include "Output.h"

using namespace Qt::StringLiterals;

CommandLine::CommandLine(
    const QString &subcommandName, const QString &synopsisText, const QString &description)
    : subcommand(subcommandName)
    , synopsis(synopsisText)
{
    parser.setApplicationDescription(description);
    addFlag(u"help"_s, u"Show this help and exit."_s);
}

void CommandLine::addFlag(const QString &name, const QString &description)
{
    dashedOptions.append(u"--"_s + name);
    parser.addOption(QCommandLineOption(name, description));
}

void CommandLine::addValue(const QString &name, const QString &valueName,
    const QString &description, const QString &defaultValue)
{
    dashedOptions.append(u"--"_s + name);
    parser.addOption(QCommandLineOption(name, description, valueName, defaultValue));
}

bool CommandLine::parse(const QStringList &arguments, qsizetype fewest, qsizetype most)
{
    const bool understood = parser.parse(arguments);
    if (parser.isSet(u"help"_s)) {
        say(helpText());
        return false;
    }
    if (!understood)
        return wrongUsage(parserProblem());
    if (positionals().size() < fewest)
        return wrongUsage(u"Too few arguments for \"%1\"."_s.arg(synopsis));
    if (positionals().size() > most)
        return wrongUsage(u"Too many arguments for \"%1\"."_s.arg(synopsis));
    return true;
}

std::optional<int> CommandLine::number(const QString &name, int least, int most)
{
    return number(u"--"_s + name, value(name), least, most);
}

std::optional<int> CommandLine::number(
    const QString &what, const QString &text, int least, int most)
{
    bool isNumber = false;
    const int result = text.toInt(&isNumber);
    if (isNumber && result >= least && result <= most)
        return result;
    wrongUsage(u"%1 takes a number from %2 to %3, not \"%4\"."_s.arg(
        what, QString::number(least), QString::number(most), text));
    return std::nullopt;
}

bool CommandLine::wrongUsage(const QString &problem)
{
    complain(u"%1: %2 See \"morvanectl %1 --help\"."_s.arg(subcommand, problem));
    status = usageStatus;
    return false;
}

QString CommandLine::parserProblem() const
{
    const QStringList unknown = parser.unknownOptionNames();
    if (unknown.isEmpty())
        return parser.errorText();
    const QString name = unknown.constFirst();
    const QString option = (name.size() == 1 ? u"-"_s : u"--"_s) + name;
    return guessSentence(u"Unknown option \"%1\""_s.arg(option), option,
        name.size() == 1 ? QStringList() : dashedOptions);
}

// The parser's own first line knows nothing of subcommands.
QString CommandLine::helpText() const
{
    const QString text = parser.helpText();
    return u"Usage: morvanectl %1 [options] %2"_s.arg(subcommand, synopsis)
        + text.sliced(text.indexOf(u'\n')).trimmed().prepend(u"\n\n"_s);
}

void addDirectoryOption(CommandLine &line)
{
    line.addValue(u"directory"_s, u"DIR"_s,
        u"The working directory of the module (default: the current one)."_s);
}
