#pragma once

#include <QStringList>

// Returns "; did you mean \"NAME\"?" with the known name that is closest to `name`, or an empty
// text if none is close.
[[nodiscard]] QString guessHint(const QString &name, const QStringList &known);
// Ends the statement about the name with such a hint, or with a full stop if there is none.
[[nodiscard]] QString guessSentence(
    const QString &statement, const QString &name, const QStringList &known);
