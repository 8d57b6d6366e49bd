#pragma once

#include <QtGlobal>

#include <bitset>

// Tells the first transmission of each packet of a file from its repetitions.
class SentPackets
{
public:
    // Call once for every data packet that is sent.
    [[nodiscard]] bool isRepeated(char fileId, quint16 number)
    {
        if (fileId != seenFile)
            seen.reset();
        seenFile = fileId;
        const bool wasSeen = seen.test(number);
        seen.set(number);
        return wasSeen;
    }

private:
    std::bitset<65'536> seen; // by packet number
    char seenFile = 0; // id
};

// The counters of a UDP transfer since it was started.
//
// Thread:  the one that the ScanThread object lives on, not the scanning one.
struct TransferCounters
{
    bool operator==(const TransferCounters &) const = default;

    qint64 packetsSent = 0; // data packets, including repetitions
    qint64 packetsRepeated = 0;
    qint64 bytesSent = 0; // in data packets, without IP and UDP headers
    qint64 filesDelivered = 0;
    qint64 filesRefused = 0;
    qint64 filesReceived = 0;
    qint64 lastAnswer = 0; // last packet from the peer, seconds since the epoch; 0 for never
};
