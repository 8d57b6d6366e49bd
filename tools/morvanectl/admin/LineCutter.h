#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <functional>

// Cuts bytes that arrive in arbitrary pieces into lines. Holds at most one line in memory.
class LineCutter
{
public:
    explicit LineCutter(qsizetype longestLine)
        : longest(longestLine)
    {
    }

    // Calls `take` with each complete line, without its line feed. Returns false if it dropped a
    // line that was too long.
    [[nodiscard]] bool feed(
        QByteArrayView bytes, const std::function<void(const QByteArray &line)> &take);

    // Removes and returns the unfinished line.
    [[nodiscard]] QByteArray takeRest();

private:
    const qsizetype longest;
    QByteArray unfinished;
    bool isDiscardingLongLine = false;
};
