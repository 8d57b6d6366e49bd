#pragma once

#include <QDateTime>
#include <QRegularExpression>
#include <QStringList>

// Templates for the names of many files, with the fields {number} and {time}.

// Replaces the fields. The number gets at least six digits, so that names sort as numbers do; the
// time is in UTC: 20301231T235959Z.
[[nodiscard]] QString fillIn(QString text, qint64 number, const QDateTime &time);

// Returns an expression that matches all names made from the template and captures the number as
// its group 1. The template must hold {number}.
[[nodiscard]] QRegularExpression namesFrom(const QString &text);

// Returns which {word} of the template is probably a misspelt one of these words; empty if none is.
// Other braces are part of the names.
[[nodiscard]] QString templateProblem(const QString &text, const QStringList &words);

[[nodiscard]] QString paddedNumber(qint64 number);
