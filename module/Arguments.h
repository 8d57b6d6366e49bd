#pragma once

#include <QStringList>

// The parsed command line.
//
// Knows "-settings" with its value, "--help" and "--version". Ignores every other argument, with a
// remark, so that a misspelt option is noticed.
struct Arguments
{
    enum class Task { Run, ShowHelp, ShowVersion };

    // The first element of `all` is the program's own name, as in argv.
    explicit Arguments(const QStringList &all);

    Task task = Task::Run;
    // In the order of the command line. Never empty: an empty path means the default file.
    QStringList settingsFiles;
    // One line for each argument that has no effect.
    QStringList remarks;
};

[[nodiscard]] QString helpText();
