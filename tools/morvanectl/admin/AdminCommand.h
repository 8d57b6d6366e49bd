#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// A command for modules, as an operator gives it: a word of this tool, followed by a module's name
// if it is for one module only, or the name that the modules have for the command.
struct AdminCommand
{
    QByteArray name; // as modules know it
    QByteArray module; // empty: all modules
    bool isKnown = true; // to this tool

    // Returns nullopt if a word of this tool is followed by something that it does not take.
    [[nodiscard]] static std::optional<AdminCommand> read(const QString &text);

    // Returns the words that a typed command can begin with.
    [[nodiscard]] static QStringList firstWords();

    // Returns one text for each command. "watch on" may be one argument or two.
    [[nodiscard]] static QStringList textsOf(const QStringList &arguments);
};
