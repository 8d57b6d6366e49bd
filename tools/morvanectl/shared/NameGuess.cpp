#include "NameGuess.h"

#include <algorithm>
#include <numeric>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype mostSlipsGuessed = 2;
constexpr qsizetype longestKnownName = 64;

// Counts the letters to insert, remove or replace to turn one text into the other.
qsizetype slipsBetween(const QString &a, const QString &b)
{
    std::vector<qsizetype> row(size_t(b.size()) + 1);
    std::iota(row.begin(), row.end(), 0);
    for (qsizetype i = 0; i < a.size(); ++i) {
        qsizetype diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < size_t(b.size()); ++j) {
            const qsizetype replaced = diagonal + (a.at(i) == b.at(qsizetype(j)) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

QString guessHint(const QString &name, const QStringList &known)
{
    qsizetype fewest = mostSlipsGuessed + 1;
    QString best;
    for (const QString &candidate : name.size() > longestKnownName ? QStringList() : known) {
        const qsizetype slips = slipsBetween(name.toLower(), candidate.toLower());
        if (slips >= fewest)
            continue;
        fewest = slips;
        best = candidate;
    }
    return best.isEmpty() ? QString() : u"; did you mean \"%1\"?"_s.arg(best);
}

QString guessSentence(const QString &statement, const QString &name, const QStringList &known)
{
    const QString hint = guessHint(name, known);
    return statement + (hint.isEmpty() ? u"."_s : hint);
}
