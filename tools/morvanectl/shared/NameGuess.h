#pragma once

#include <QStringList>

// Returns "; did you mean \"NAME\"?" with the known name that is most like the given one, or
// nothing if none is like it.
[[nodiscard]] QString guessHint(const QString &name, const QStringList &known);
// Returns the statement about the name as a sentence, with such a hint if there is one.
[[nodiscard]] QString guessSentence(
    const QString &statement, const QString &name, const QStringList &known);
