#pragma once

#include <QtGlobal>

// The ids for the commands of one sender. Each sender has a range of its own, so that it recognises
// the answers to its commands. After the last id the first one follows.
class CommandIds
{
public:
    static constexpr qint32 rangeSize = 1'000'000;
    static constexpr qint32 rangeCount = 2'147; // ranges in the positive numbers

    explicit CommandIds(qint32 rangeNumber = 0)
        : firstId(rangeNumber * rangeSize + 1)
    {
    }
    [[nodiscard]] static CommandIds startingAt(qint32 id)
    {
        CommandIds ids;
        ids.firstId = id;
        return ids;
    }

    [[nodiscard]] qint32 first() const { return firstId; }
    [[nodiscard]] qint32 last() const { return firstId + (rangeSize - 1); }
    [[nodiscard]] bool contains(qint64 id) const { return id >= first() && id <= last(); }
    qint32 next()
    {
        used = used % rangeSize + 1;
        return firstId + used - 1;
    }

private:
    qint32 firstId;
    qint32 used = 0;
};
