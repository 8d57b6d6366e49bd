#pragma once

#include <QtGlobal>

#include <bitset>

// Tells the first packet of each number of a file from its repetitions.
class SentPackets
{
public:
    // For every data packet that leaves.
    [[nodiscard]] bool isRepeated(char fileId, quint16 number)
    {
        if (fileId != id)
            seen.reset();
        id = fileId;
        const bool wasSeen = seen.test(number);
        seen.set(number);
        return wasSeen;
    }

private:
    std::bitset<65'536> seen; // by number
    char id = 0; // of the file
};

// What a transfer over UDP has done since it was started.
//
// Owner:   ScanThread.
// Thread:  the one of the scan thread object, never the scanning one.
struct TransferCounters
{
    bool operator==(const TransferCounters &) const = default;

    qint64 packetsSent = 0; // of files, repetitions included
    qint64 packetsRepeated = 0;
    qint64 bytesSent = 0; // of the packets, as they are on the wire
    qint64 filesDelivered = 0;
    qint64 filesRefused = 0;
    qint64 filesReceived = 0;
    qint64 lastAnswer = 0; // when the peer was heard last, seconds since the epoch; 0: never
};
