#pragma once

#include "Counters.h"
#include "SpoolCensus.h"
#include "TransferCounters.h"

#include <QString>

#include <optional>

// What a module has done and how it is, at one moment. Times are seconds since the epoch.
struct Status
{
    // The text format of Prometheus. All values bear the module's name, so that the files of
    // several modules can be read together.
    [[nodiscard]] QByteArray toPrometheus(qint64 now) const;

    QString module; // bus name, or that of the settings file where it has none
    QString version;
    QString protocol;
    QString peer;
    bool isRunning = true;
    qint64 startedAt = 0;

    bool isLinkUp = false; // TCP
    qint64 linkChangedAt = 0;
    QString lastError;
    qint64 lastErrorAt = 0; // 0: there was none

    Counters::Amount unacknowledged; // TCP: on their way to the peer
    std::optional<quint64> acknowledgedNumber; // if the peer's program acknowledges: its last one
    SpoolCensus waiting;
    Counters counters;
    std::optional<TransferCounters> udp; // in UDP mode
    double udpRate = 0; // bytes a second, lately
};
