#pragma once

#include <QtGlobal>

// Counts the records that the module has handled since its start. The bytes of a record are those
// of its kind and payload, as in its spool file.
struct Counters
{
    struct Amount
    {
        void add(qint64 size)
        {
            ++records;
            bytes += size;
        }
        bool operator==(const Amount &) const = default;

        qint64 records = 0;
        qint64 bytes = 0;
    };

    // From the bus. All but `accepted` were dropped, each for its own reason.
    Amount accepted;
    Amount unknownKind;
    // The protocol is neither TCP nor UDP.
    Amount noTransport;
    Amount noLock;
    // The file could not be written, or its name cannot be a file's.
    Amount noFile;

    // To the TCP peer. `sent` includes repetitions.
    Amount sent;
    Amount acknowledged;
    // Still unacknowledged when the link ended, so returned to the spool.
    Amount givenBack;
    // Sent again after they were given back.
    Amount repeated;

    bool operator==(const Counters &) const = default;
};
