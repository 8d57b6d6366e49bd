#pragma once

#include <QStringList>

// ", is \"NAME\" meant?" for the known name that a person most likely misspelt; empty if none is
// like it.
[[nodiscard]] QString guessHint(const QString &name, const QStringList &known);
