#include "SettingsText.h"

using namespace Qt::StringLiterals;

namespace {

constexpr char byteOrderMark[] = "\xEF\xBB\xBF";

QString shown(const QByteArray &text)
{
    return QString::fromUtf8(text);
}

// QSettings writes some characters of a name as percent escapes, and reads a backslash as the
// separator between a group and a key.
QString nameIn(const QByteArray &text)
{
    return shown(QByteArray::fromPercentEncoding(text.trimmed())).replace(u'\\', u'/');
}

} // namespace

SettingsText::SettingsText(const QByteArray &text)
    : rest(text)
{
    if (rest.startsWith(byteOrderMark))
        rest.remove(0, qsizetype(sizeof byteOrderMark) - 1);
    rest.replace("\r\n", "\n");
    while (!rest.isEmpty())
        read(takeLogicalLine());
}

SettingsText::Line SettingsText::takeLogicalLine()
{
    Line line{nextNumber, {}, false};
    bool quoted = false;
    bool comment = false;
    qsizetype at = 0;
    for (; at < rest.size(); ++at) {
        const char c = rest.at(at);
        if (c == '\n' && (comment || !quoted))
            break;
        if (comment || (comment = c == ';' && !quoted))
            continue;
        if (c == '"')
            quoted = !quoted;
        if (c == '\\' && at + 1 < rest.size())
            line.textWithoutComment += rest.at(at++);
        line.textWithoutComment += rest.at(at);
        line.spansLines |= rest.at(at) == '\n';
    }
    nextNumber += int(rest.first(at).count('\n')) + 1;
    rest.remove(0, at + 1);
    line.textWithoutComment = line.textWithoutComment.trimmed();
    return line;
}

void SettingsText::read(const Line &line)
{
    if (line.textWithoutComment.isEmpty())
        return;
    const qsizetype equals = line.textWithoutComment.indexOf('=');
    if (line.textWithoutComment.startsWith('['))
        readGroup(line);
    else if (equals >= 0)
        readKey(line, equals);
    else if (line.textWithoutComment.startsWith('#'))
        foundRemarks.append({line.firstNumber, u"\"#\" does not begin a comment; \";\" does"_s});
    else
        foundRemarks.append({line.firstNumber,
            u"\"%1\" has no \"=\" and sets nothing"_s.arg(shown(line.textWithoutComment))});
}

void SettingsText::readGroup(const Line &line)
{
    qsizetype end = line.textWithoutComment.indexOf(']');
    if (end < 0) {
        foundRemarks.append({line.firstNumber, u"the name of the group has no \"]\""_s});
        end = line.textWithoutComment.size();
    }
    currentGroup = nameIn(line.textWithoutComment.sliced(1, end - 1));
    if (currentGroup.compare("general"_L1, Qt::CaseInsensitive) == 0)
        currentGroup.clear(); // QSettings puts keys outside any group there
    if (!lineNumbers.contains(currentGroup + u'/'))
        lineNumbers.insert(currentGroup + u'/', line.firstNumber);
}

void SettingsText::readKey(const Line &line, qsizetype equals)
{
    const QString key = nameIn(line.textWithoutComment.first(equals));
    const QString path = currentGroup + u'/' + key;
    if (const int earlier = lineNumbers.value(path))
        foundRemarks.append({earlier,
            u"\"%1\" has no effect; line %2 sets it again"_s.arg(
                key, QString::number(line.firstNumber))});
    if (line.spansLines)
        foundRemarks.append({line.firstNumber,
            u"the value of \"%1\" goes on past the end of its line, because of an open quote or "
            "a backslash"_s.arg(key)});
    lineNumbers.insert(path, line.firstNumber);
}

int SettingsText::lineOf(const QString &group, const QString &key) const
{
    return lineNumbers.value(group + u'/' + key, lineNumbers.value(group + u'/', 1));
}
