#include "AdminCommand.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

struct Word
{
    QString text;
    const char *command;
};

const Word words[] = {
    {u"about"_s, "About"},
    {u"watch on"_s, "Input_Data_On"},
    {u"watch off"_s, "Input_Data_Off"},
    {u"arrows on"_s, "Watch_Arrow_On"},
    {u"arrows off"_s, "Watch_Arrow_Off"},
    {u"quit"_s, "QuitSignal"},
};

// Reads the word after "stop" and "send-command": a module's name, or "all".
QByteArray moduleOf(const QString &name)
{
    return name == "all"_L1 ? QByteArray() : name.toUtf8();
}

bool isSwitch(const QString &word)
{
    return word == "watch"_L1 || word == "arrows"_L1;
}

} // namespace

std::optional<AdminCommand> AdminCommand::read(const QString &text)
{
    const QString plain = text.simplified();
    const QString first = plain.section(u' ', 0, 0), second = plain.section(u' ', 1, 1);
    if (first == "stop"_L1)
        return second.isEmpty() || plain.count(u' ') > 1
            ? std::nullopt
            : std::optional(AdminCommand{"QuitSignal", moduleOf(second)});
    if (first == "send-command"_L1)
        return plain.count(u' ') < 2
            ? std::nullopt
            : std::optional(AdminCommand{plain.section(u' ', 2).toUtf8(), moduleOf(second)});
    for (const Word &word : words) {
        if (plain == word.text)
            return AdminCommand{word.command, {}};
        if (!plain.startsWith(word.text + u' '))
            continue;
        const QString module = plain.sliced(word.text.size() + 1);
        if (module.contains(u' '))
            return std::nullopt;
        return AdminCommand{word.command, module.toUtf8()};
    }
    if (isSwitch(first))
        return std::nullopt;
    const bool isKnown = std::any_of(std::begin(words), std::end(words),
        [&](const Word &word) { return plain == QLatin1StringView(word.command); });
    return AdminCommand{text.toUtf8(), {}, isKnown};
}

QStringList AdminCommand::firstWords()
{
    return {u"about"_s, u"arrows"_s, u"exit"_s, u"help"_s, u"modules"_s, u"quit"_s,
        u"send-command"_s, u"stop"_s, u"watch"_s};
}

QStringList AdminCommand::textsOf(const QStringList &arguments)
{
    QStringList texts;
    for (const QString &argument : arguments) {
        if (!texts.isEmpty() && isSwitch(texts.last()))
            texts.last() += u' ' + argument;
        else
            texts.append(argument);
    }
    return texts;
}
