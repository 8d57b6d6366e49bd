#pragma once

#include "Counters.h"
#include "SpoolCensus.h"
#include "TransferCounters.h"

#include <QString>

#include <optional>

// The module's state and counters at one moment. Times are seconds since the epoch.
struct Status
{
    // Returns the text format of Prometheus. Every value is labelled with the module's name, so
    // that one collector can read the files of several modules.
    [[nodiscard]] QByteArray toPrometheus(qint64 now) const;

    // The bus name, or the base name of the settings file if the module has no bus name.
    QString module;
    QString version;
    QString protocol;
    QString peer;
    bool isRunning = true;
    qint64 startedAt = 0;

    QString lastError;
    qint64 lastErrorAt = 0; // 0 for none
    SpoolCensus waiting;
    Counters counters;

    // TCP mode. The number is set if the peer's program acknowledges: it is the last one that
    // counted on this link.
    bool isLinkUp = false;
    qint64 linkChangedAt = 0;
    Counters::Amount unacknowledged;
    std::optional<quint64> acknowledgedNumber;

    // Set in UDP mode. The rate covers the time between the last two reports.
    std::optional<TransferCounters> udp;
    double udpRate = 0; // bytes a second
};
