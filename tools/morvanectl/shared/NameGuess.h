#pragma once

#include <QStringList>

// ", is \"NAME\" meant?" for the known name that a person most likely misspelt; empty if none is
// like it.
[[nodiscard]] QString guessHint(const QString &name, const QStringList &known);
// A statement about the name as a whole sentence, which ends with such a hint where there is one.
[[nodiscard]] QString guessSentence(
    const QString &statement, const QString &name, const QStringList &known);
