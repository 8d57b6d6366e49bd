#include "AdminCommand.h"

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

bool isSwitch(const QString &word)
{
    return word == "watch"_L1 || word == "arrows"_L1;
}

} // namespace

std::optional<AdminCommand> AdminCommand::read(const QString &text)
{
    const QString plain = text.simplified();
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
    if (isSwitch(plain.section(u' ', 0, 0)))
        return std::nullopt;
    return AdminCommand{text.toUtf8(), {}};
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
