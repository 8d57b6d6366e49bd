#include "StatusPage.h"

#include "Output.h"

#include <QDateTime>
#include <QFile>
#include <QRegularExpression>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 longestPage = 65'536; // bytes; a module writes less than a tenth of that

QString shownValue(const QString &name, double number)
{
    if (name.contains(u"_time_seconds"_s))
        return number == 0
            ? u"never"_s
            : QDateTime::fromSecsSinceEpoch(qint64(number)).toString(u"yyyy-MM-dd HH:mm:ss"_s);
    return QString::number(number, 'f', number == std::floor(number) ? 0 : 1);
}

QString shownName(QString name)
{
    name.replace(u"_time_seconds"_s, u"_at"_s).remove(u"_total"_s);
    const qsizetype labels = name.indexOf(u'{');
    const QString words = name.left(labels).replace(u'_', u' ');
    return labels < 0 ? words : words + u' ' + printable(name.sliced(labels).toUtf8());
}

} // namespace

StatusPage::StatusPage(const QString &path)
{
    static const QRegularExpression line(
        u"^morvane_(\\w+)\\{module=\"(?:[^\"\\\\]|\\\\.)*\",?(.*)\\} (\\S+)$"_s,
        QRegularExpression::MultilineOption);
    QFile file(path);
    if (path.isEmpty())
        return;
    if (!file.open(QIODevice::ReadOnly)) {
        reason = file.errorString();
        return;
    }
    const QString text = QString::fromUtf8(file.read(longestPage));
    for (const QRegularExpressionMatch &match : line.globalMatch(text)) {
        const QString labels = match.captured(2);
        values.append({match.captured(1) + (labels.isEmpty() ? QString() : u'{' + labels + u'}'),
            match.captured(3).toDouble()});
    }
}

QStringList StatusPage::lines() const
{
    QStringList shown;
    for (const Value &value : values)
        shown.append(shownName(value.name) + u"  "_s + shownValue(value.name, value.number));
    return shown;
}

QJsonObject StatusPage::toJson() const
{
    QJsonObject object;
    for (const Value &value : values)
        object.insert(value.name, value.number);
    return object;
}
