#include "LineCutter.h"

#include <utility>

bool LineCutter::feed(QByteArrayView bytes, const std::function<void(const QByteArray &line)> &take)
{
    bool allFit = true;
    while (!bytes.isEmpty()) {
        const qsizetype end = bytes.indexOf('\n');
        const QByteArrayView piece = end < 0 ? bytes : bytes.first(end);
        if (!isDiscardingLongLine && unfinished.size() + piece.size() > longest) {
            isDiscardingLongLine = true;
            allFit = false;
            unfinished.clear();
        }
        if (!isDiscardingLongLine)
            unfinished.append(piece);
        if (end < 0)
            break;
        if (!std::exchange(isDiscardingLongLine, false))
            take(std::exchange(unfinished, {}));
        bytes = bytes.sliced(end + 1);
    }
    return allFit;
}

QByteArray LineCutter::takeRest()
{
    return std::exchange(unfinished, {});
}
