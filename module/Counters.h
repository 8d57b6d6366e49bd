#pragma once

#include <QtGlobal>

// What a module has done since it was started. Bytes are those of kind and payload, as they lie in
// the spool.
//
// Owner:   Morvane.
// Thread:  main thread.
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

    // From the bus: taken, or dropped and why.
    Amount accepted;
    Amount unknownKind;
    Amount noTransport; // the protocol is neither TCP nor UDP
    Amount noLock;
    Amount noFile; // a full disk, or a name that no file can have

    // To the TCP peer.
    Amount sent; // taken by the link, repetitions included
    Amount acknowledged; // by the peer's kernel
    Amount givenBack; // the link ended before that
    Amount repeated; // sent once more after they were given back

    bool operator==(const Counters &) const = default;
};
