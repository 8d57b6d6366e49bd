#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <functional>

// Cuts bytes that arrive in any pieces into lines, in the memory of one line at most.
class LineCutter
{
public:
    explicit LineCutter(qsizetype longestLine)
        : longest(longestLine)
    {
    }

    // Hands out every line that is complete, without its end. Drops a line that is too long; the
    // result is false then.
    [[nodiscard]] bool feed(
        QByteArrayView bytes, const std::function<void(const QByteArray &line)> &take);

    // What has come of a line that has no end.
    [[nodiscard]] QByteArray takeRest();

private:
    const qsizetype longest;
    QByteArray unfinished;
    bool discarding = false; // the rest of a line that is too long
};
