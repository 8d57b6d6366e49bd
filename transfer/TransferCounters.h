#pragma once

#include <QtGlobal>

#include <bitset>

// Tells the first transmission of each packet of a file from its repetitions.
class SentPackets
{
public:
    // Notes that a data packet is sent. Returns whether it was sent before.
    [[nodiscard]] bool add(char fileId, quint16 number)
    {
        if (fileId != currentId)
            sentNumbers.reset();
        currentId = fileId;
        const bool wasSent = sentNumbers.test(number);
        sentNumbers.set(number);
        return wasSent;
    }

private:
    std::bitset<65'536> sentNumbers;
    char currentId = 0;
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
    qint64 lastPeerPacket = 0; // seconds since the epoch; 0 for never
};
