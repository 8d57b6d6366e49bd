#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>

#include <chrono>
#include <optional>

// What lies in a spool directory at one moment.
struct SpoolState
{
    using Age = std::chrono::milliseconds; // negative if the clocks differ

    struct File
    {
        QString name;
        qint64 bytes;
        Age age;
    };
    struct Refused
    {
        File file;
        QString reason; // empty if no longer known
    };
    // Records that were sent and that the peer has not acknowledged.
    struct Unacknowledged
    {
        QString folder;
        qint64 files = 0;
        qint64 bytes = 0;
        bool hasLivingOwner;
        QString problem = {}; // why it cannot be read; empty if it can
    };
    struct Transfer
    {
        qint64 packets = 0;
        // Over an undisturbed link; nullopt if no pace is set.
        std::optional<std::chrono::milliseconds> duration = std::chrono::milliseconds(0);
        bool isUpperBound = false; // some files were counted uncompressed
    };

    QString path;
    qint64 files = 0;
    qint64 bytes = 0;
    std::optional<File> oldest;
    QList<File> firstToBeSent;
    QList<Refused> refused;
    QList<Unacknowledged> unacknowledged;
    std::optional<Age> lockAge;
    std::optional<Transfer> udpTransfer;

    [[nodiscard]] QJsonObject toJson() const;
    // Returns several lines, without a line feed at the end.
    [[nodiscard]] QString toText() const;
};
