#pragma once

#include "BusEnds.h"
#include "Record.h"

// Hands records to a process over its bus.
struct BusFeeder : BusClient
{
    using BusClient::BusClient;
    void record(const char *kind, const QString &name, const QByteArray &payload)
    {
        write(BusFrame::makeData(1, DataRecord{kind, name, payload}.write()));
    }
};
