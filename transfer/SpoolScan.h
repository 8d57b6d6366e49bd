#pragma once

#include "SpoolListing.h"

#include <QDeadlineTimer>
#include <QString>

#include <dirent.h>
#include <memory>

// One pass over a spool directory, for the files to send next.
//
// A long backlog takes several passes: each keeps only as many names as its memory is bounded to,
// the first ones in the order of sending that follow the last one of the pass before.
//
// Owner:   whoever sends.
// Thread:  any one thread at a time; a long pass is handed to another.
// Errors:  never throws. A directory that cannot be read gives no names.
class SpoolScan
{
public:
    // Bytes of names, with some for each; a pass over millions of files holds three times as much.
    static constexpr size_t defaultBytes = 4'194'304;

    // Names that follow one in the order of sending, or all if it is empty.
    explicit SpoolScan(
        const QString &directory, const QByteArray &after = {}, size_t mostBytes = defaultBytes);

    // Reads on until the deadline at the latest. True when the pass is complete.
    [[nodiscard]] bool goOn(QDeadlineTimer deadline = QDeadlineTimer::Forever);
    // The names of a complete pass, sorted.
    [[nodiscard]] SpoolListing takeNames();
    // More names follow than were kept.
    [[nodiscard]] bool isCutOff() const { return names.isCutOff(); }
    // There are names that cannot be given, see SpoolDirectory::setForeignNamesAside().
    [[nodiscard]] bool hasForeign() const { return sawForeign; }

private:
    std::unique_ptr<DIR, int (*)(DIR *)> directory;
    SpoolListing names;
    bool sawForeign = false;
};
