#pragma once

#include "SpoolDirectory.h"
#include "SpoolState.h"

#include <QHash>

// Reads the state of a spool directory without changing it or keeping others from using it. It
// remembers the compressed sizes that it has found, so use one object for repeated looks.
//
// Errors:  leaves out files that disappear while it looks.
class SpoolObserver
{
public:
    // `timeout` is nullopt unless the module is in UDP mode.
    SpoolObserver(const QString &path, std::optional<quint16> timeout);

    [[nodiscard]] const QString &path() const { return spool.path(); }
    // Returns why the directory cannot be read; empty if it can.
    [[nodiscard]] QString problem() const;
    [[nodiscard]] SpoolState look();

private:
    struct Compressed
    {
        SpoolDirectory::Mark mark;
        qint64 bytes;
    };
    void addWaiting(SpoolState &state);
    void addRefused(SpoolState &state);
    void addUnacknowledged(SpoolState &state) const;
    void addTransfer(
        SpoolState::Transfer &transfer, const QString &name, const SpoolDirectory::Mark &mark);
    [[nodiscard]] std::optional<qint64> compressedSize(
        const SpoolDirectory &directory, const QString &name, const SpoolDirectory::Mark &mark);
    [[nodiscard]] QString refusalReason(const SpoolDirectory &refused, const SpoolState::File &file,
        const SpoolDirectory::Mark &mark);

    const SpoolDirectory spool;
    const std::optional<quint16> timeout; // milliseconds; only in UDP mode
    QHash<QString, Compressed> compressedSizes; // by path
    qint64 bytesLeftToCompress = 0;
};
