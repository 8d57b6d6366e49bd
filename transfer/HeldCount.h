#pragma once

#include <QtGlobal>

#include <optional>

// What a peer's own count of the packets that it holds of a file says beside the acknowledged
// numbers. Those alone deceive: after a restart a new file may bear the id of one that the peer
// still holds, and an old copy of packet 0 makes it forget packets that it has acknowledged.
//
// The count comes in its low eight bits. A peer that leaves it at 1, or gives none, is believed.
class HeldCount
{
public:
    // A file of so many packets, packet 0 included.
    void begin(int packets)
    {
        all = quint8(packets);
        isCounting = isWhole = false;
    }

    // Whether an acknowledgement of packet 0 can be meant for the file that is being announced: a
    // peer that has taken its packet 0 holds nothing else yet.
    [[nodiscard]] static bool isOfNewFile(std::optional<quint8> held)
    {
        return held.value_or(1) == 1;
    }

    // For every acknowledgement behind that one, with the number of packets outstanding before it.
    void take(std::optional<quint8> held, qsizetype outstanding)
    {
        if (!held)
            return;
        isCounting |= *held != 1;
        // Late acknowledgements, with lower counts, may overtake one that has them all.
        isWhole |= *held == all && outstanding <= fewOutstanding;
    }

    // Once all packets are acknowledged: whether the peer counts, but has never counted them all.
    [[nodiscard]] bool lacksSome() const { return isCounting && !isWhole; }

private:
    static constexpr qsizetype fewOutstanding = 50; // two status requests; far below 256

    quint8 all = 0;
    bool isCounting = false;
    bool isWhole = false;
};
