#pragma once

#include "SpoolDirectory.h"
#include "SpoolState.h"

#include <QHash>

// Reads the state of a spool directory. Changes nothing in it and gets in nobody's way.
//
// Owner:   the subcommand spool, for all its looks: it keeps the compressed sizes it has found.
// Thread:  any one thread.
// Errors:  leaves out files that go while it looks.
class SpoolObserver
{
public:
    // The timeout of UDP mode; none in any other.
    SpoolObserver(const QString &path, std::optional<quint16> timeout);

    [[nodiscard]] const QString &path() const { return spool.path(); }
    // Why nothing can be seen there; empty if it can.
    [[nodiscard]] QString problem() const;
    [[nodiscard]] SpoolState look();

private:
    struct Compressed
    {
        SpoolDirectory::Mark mark;
        qint64 bytes;
    };
    void lookAtWaiting(SpoolState &state);
    void lookAtRefused(SpoolState &state);
    void lookAtUnacknowledged(SpoolState &state) const;
    void addTransfer(
        SpoolState::Transfer &transfer, const QString &name, const SpoolDirectory::Mark &mark);
    [[nodiscard]] std::optional<qint64> compressedSize(
        const SpoolDirectory &directory, const QString &name, const SpoolDirectory::Mark &mark);
    [[nodiscard]] QString refusalReason(const SpoolDirectory &refused, const SpoolState::File &file,
        const SpoolDirectory::Mark &mark);

    const SpoolDirectory spool;
    const std::optional<quint16> timeout; // milliseconds
    QHash<QString, Compressed> compressed; // by path
    qint64 budget = 0; // bytes that may still be compressed in this look
};
