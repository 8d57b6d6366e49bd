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

    // Calls `take` with each complete line, without its line feed. Returns false if it dropped a
    // line that was too long.
    [[nodiscard]] bool feed(
        QByteArrayView bytes, const std::function<void(const QByteArray &line)> &take);

    // Returns the unfinished line, and forgets it.
    [[nodiscard]] QByteArray takeRest();

private:
    const qsizetype longest;
    QByteArray unfinished;
    bool isDiscarding = false; // the rest of a line that is too long
};
