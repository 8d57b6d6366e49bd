#pragma once

#include "Packet.h"

#include <QtGlobal>

#include <optional>

// Checks acknowledgements against the peer's own count of the packets that it holds of a file.
//
// The acknowledged numbers alone can mislead. After a restart a new file may have the id of a file
// that the peer still holds, and a late copy of packet 0 makes the peer forget packets that it has
// already acknowledged.
//
// The peer sends the low eight bits of its count. If it sends none, or always 1, the acknowledged
// numbers are trusted.
class HeldCount
{
public:
    // Starts a file with that many packets, including packet 0.
    void begin(int packets)
    {
        lowByteOfAll = quint8(packets);
        isCounting = isWhole = false;
    }

    // Returns whether an acknowledgement of packet 0 can belong to the file being announced. A peer
    // that has just received its packet 0 holds nothing else of it.
    [[nodiscard]] static bool isOfNewFile(std::optional<quint8> held)
    {
        return held.value_or(1) == 1;
    }

    // Call for every later acknowledgement. outstanding is the number of packets that were not yet
    // acknowledged before it.
    void take(std::optional<quint8> held, qsizetype outstanding)
    {
        if (!held)
            return;
        isCounting |= *held != 1;
        // Stays true: an older acknowledgement with a lower count may arrive late.
        isWhole |= *held == lowByteOfAll && outstanding <= fewOutstanding;
    }

    // Call when all packets are acknowledged. Returns whether the peer counts its packets, but has
    // never counted all of them.
    [[nodiscard]] bool lacksSome() const { return isCounting && !isWhole; }

private:
    static constexpr qsizetype fewOutstanding = 2 * Packet::maxListed; // far below 256

    quint8 lowByteOfAll = 0;
    bool isCounting = false;
    bool isWhole = false;
};
