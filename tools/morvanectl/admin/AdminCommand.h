#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// One command for modules, as an operator gives it: a word of this tool, with the name of a module
// behind it if it is for that one only, or the command's own name.
struct AdminCommand
{
    QByteArray name; // as modules know it
    QByteArray module; // for this one only; empty: for all
    bool isKnown = true; // or any text, for modules that know it

    // Nothing if a word of this tool stands with something that it does not take.
    [[nodiscard]] static std::optional<AdminCommand> read(const QString &text);

    // The words that a person can begin a command with.
    [[nodiscard]] static QStringList firstWords();

    // The texts of commands from arguments, where "watch on" may be two of them.
    [[nodiscard]] static QStringList textsOf(const QStringList &arguments);
};
