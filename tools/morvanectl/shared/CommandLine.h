#pragma once

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <limits>
#include <optional>

// The command line of one subcommand: its help and its options. Every function that finds a usage
// error prints it to standard error, with a hint at --help.
class CommandLine
{
public:
    // `synopsis` is what follows the options, such as "NAME [COMMAND...]".
    CommandLine(const QString &subcommand, const QString &synopsis, const QString &description);

    void addFlag(const QString &name, const QString &description);
    void addValue(const QString &name, const QString &valueName, const QString &description,
        const QString &defaultValue = {});

    // Returns false if the run is over because it only printed the help, or for a usage error.
    [[nodiscard]] bool parse(const QStringList &arguments, qsizetype fewest,
        qsizetype most = std::numeric_limits<qsizetype>::max());
    // The exit status of a run that is over.
    [[nodiscard]] int exitStatus() const { return status; }

    [[nodiscard]] QStringList positionals() const { return parser.positionalArguments(); }
    [[nodiscard]] bool isSet(const QString &name) const { return parser.isSet(name); }
    [[nodiscard]] QString value(const QString &name) const { return parser.value(name); }
    // Prints a usage error and returns nullopt unless the value is an integer in [least, most].
    [[nodiscard]] std::optional<int> number(const QString &name, int least, int most);
    [[nodiscard]] std::optional<int> number(
        const QString &what, const QString &text, int least, int most);

    // Returns false, so that its caller can return the result.
    bool wrongUsage(const QString &problem);

private:
    [[nodiscard]] QString helpText() const;
    [[nodiscard]] QString parserProblem() const;

    QString subcommand;
    QString synopsis;
    QCommandLineParser parser;
    QStringList dashedOptions;
    int status = 0;
};

// Adds --directory, the folder that relative paths in a settings file start from.
void addDirectoryOption(CommandLine &line);

inline constexpr int longestSeconds = 1'000'000; // the milliseconds fit a timer
