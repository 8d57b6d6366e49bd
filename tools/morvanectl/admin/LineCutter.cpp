#include "LineCutter.h"

#include <utility>

bool LineCutter::feed(QByteArrayView bytes, const std::function<void(const QByteArray &line)> &take)
{
    bool allFit = true;
    while (!bytes.isEmpty()) {
        const qsizetype end = bytes.indexOf('\n');
        const QByteArrayView piece = end < 0 ? bytes : bytes.first(end);
        if (!isDiscarding && unfinished.size() + piece.size() > longest) {
            isDiscarding = true;
            allFit = false;
            unfinished.clear();
        }
        if (!isDiscarding)
            unfinished.append(piece);
        if (end < 0)
            break;
        if (!std::exchange(isDiscarding, false))
            take(std::exchange(unfinished, {}));
        bytes = bytes.sliced(end + 1);
    }
    return allFit;
}

QByteArray LineCutter::takeRest()
{
    return std::exchange(unfinished, {});
}
