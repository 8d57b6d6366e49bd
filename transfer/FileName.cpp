#include "FileName.h"

#include <QFile>

#include <algorithm>

bool isPlainName(const QString &name)
{
    if (name.isEmpty() || name.startsWith(u'.'))
        return false;
    const auto isCommon = [](QChar c) { return c > u'\0' && c < u'\x80' && c != u'/'; };
    return std::all_of(name.begin(), name.end(), isCommon)
        || (!name.contains(u'/') && !name.contains(QChar(u'\0'))
            && QFile::decodeName(QFile::encodeName(name)) == name);
}

bool isForeignName(QByteArrayView name)
{
    return !name.isValidUtf8() || name.startsWith("\xEF\xBB\xBF");
}
