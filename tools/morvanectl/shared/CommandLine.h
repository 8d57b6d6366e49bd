#pragma once

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <limits>
#include <optional>

// The command line of one subcommand: its help, its options and what is wrong with them.
//
// Owner:   the subcommand.
// Errors:  said on standard error; the exit status to leave with is the result.
class CommandLine
{
public:
    // The synopsis is what follows the options, such as "NAME [COMMAND...]".
    CommandLine(const QString &subcommand, const QString &synopsis, const QString &description);

    void addFlag(const QString &name, const QString &description);
    void addValue(const QString &name, const QString &valueName, const QString &description,
        const QString &defaultValue = {});

    // An exit status if there is nothing more to do: help was asked for, or the usage is wrong.
    [[nodiscard]] std::optional<int> parse(const QStringList &arguments, qsizetype fewest,
        qsizetype most = std::numeric_limits<qsizetype>::max());

    [[nodiscard]] QStringList positionals() const { return parser.positionalArguments(); }
    [[nodiscard]] bool isSet(const QString &name) const { return parser.isSet(name); }
    [[nodiscard]] QString value(const QString &name) const { return parser.value(name); }
    // Nothing, and said, if the option's value is no number from least to most.
    [[nodiscard]] std::optional<int> number(const QString &name, int least, int most) const;
    [[nodiscard]] std::optional<int> number(
        const QString &what, const QString &text, int least, int most) const;

    // Says it with a hint at the help, and gives the exit status.
    int wrongUsage(const QString &what) const;

private:
    [[nodiscard]] QString helpText() const;
    [[nodiscard]] QString parserProblem() const;

    QString subcommand;
    QString synopsis;
    QCommandLineParser parser;
    QStringList options; // with their dashes
};

// --directory, for what a settings file says relative to the module's working directory.
void addDirectoryOption(CommandLine &line);

inline constexpr int longestSeconds = 1'000'000; // of an option; fits a timer's milliseconds
