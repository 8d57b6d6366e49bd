#include "NameTemplate.h"

#include "NameGuess.h"

using namespace Qt::StringLiterals;

namespace {

constexpr int fewestDigits = 6;
const QString numberField = u"{number}"_s;
const QString timeField = u"{time}"_s;

} // namespace

QString paddedNumber(qint64 number)
{
    return u"%1"_s.arg(number, fewestDigits, 10, QChar(u'0'));
}

QString fillIn(QString text, qint64 number, const QDateTime &time)
{
    return text.replace(numberField, paddedNumber(number))
        .replace(timeField, time.toUTC().toString(u"yyyyMMdd'T'HHmmss'Z'"_s));
}

QRegularExpression namesFrom(const QString &text)
{
    QString pattern = QRegularExpression::escape(text);
    pattern.replace(QRegularExpression::escape(numberField), u"(\\d{%1,18})"_s.arg(fewestDigits));
    pattern.replace(QRegularExpression::escape(timeField), u"\\d{8}T\\d{6}Z"_s);
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern));
}

QString templateProblem(const QString &text, const QStringList &words)
{
    static const QRegularExpression field(u"\\{(\\w+)\\}"_s);
    QStringList fields;
    for (const QString &word : words)
        fields.append(u'{' + word + u'}');
    for (const QRegularExpressionMatch &match : field.globalMatch(text)) {
        const QString hint =
            words.contains(match.captured(1)) ? QString() : guessHint(match.captured(0), fields);
        if (!hint.isEmpty())
            return u"\"%1\" stands for nothing%2"_s.arg(match.captured(0), hint);
    }
    return {};
}
