#pragma once

#include <QDateTime>
#include <QRegularExpression>
#include <QStringList>

// A text for the names of many files, in which {number} and {time} change.

// The number in six digits or more, so that names sort as numbers do; the time in UTC, in whole
// seconds: 20301231T235959Z.
[[nodiscard]] QString fillIn(QString text, qint64 number, const QDateTime &time);

// What matches the whole of the names that the text has given, with the number as capture 1. The
// text must hold {number}.
[[nodiscard]] QRegularExpression namesFrom(const QString &text);

// Says which {word} of the text looks like a misspelt one of these words; empty if none does. Other
// braces are part of the names.
[[nodiscard]] QString templateProblem(const QString &text, const QStringList &words);

[[nodiscard]] QString paddedNumber(qint64 number);
