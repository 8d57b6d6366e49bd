#pragma once

#include <QStringList>

// What the command line asks for.
//
// Only "-settings" with its value, "--help" and "--version" mean something. Everything else is
// ignored, and named, so that a misspelt word does not go unnoticed.
struct Arguments
{
    enum class Task { Run, ShowHelp, ShowVersion };

    // All arguments, that of the program's own name included.
    explicit Arguments(const QStringList &all);

    Task task = Task::Run;
    QStringList settingsFiles; // in order, never none; an empty path stands for the default file
    QStringList remarks; // what has no effect, a line each
};

[[nodiscard]] QString helpText();
