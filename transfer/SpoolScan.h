#pragma once

#include "FileCalls.h"
#include "SpoolListing.h"

#include <QDeadlineTimer>

class SpoolDirectory;

// Makes one pass over a spool directory to find the files to send next.
//
// A long backlog takes several passes. Each keeps only as many names as fit into its memory limit:
// the first ones, in the order of sending, that follow the last name of the previous pass.
//
// Thread:  any one thread at a time; a long pass may be continued on another.
// Errors:  a directory that cannot be read gives no names.
class SpoolScan
{
public:
    // Bytes of names with a few bytes for each. A pass over millions of files needs three times as
    // much for a while.
    static constexpr size_t defaultBytes = 4'194'304;

    // Keeps names that follow after in the order of sending; all names if it is empty.
    explicit SpoolScan(
        const SpoolDirectory &spool, const QByteArray &after = {}, size_t mostBytes = defaultBytes);

    // Continues reading until the deadline at the latest. Returns true when the pass is complete.
    [[nodiscard]] bool readUntil(QDeadlineTimer deadline);
    // Returns the sorted names of a complete pass.
    [[nodiscard]] SpoolListing takeNames();
    // Returns whether more names follow than were kept.
    [[nodiscard]] bool isCutOff() const { return names.isCutOff(); }
    // Returns whether there are names to set aside, see SpoolDirectory::setForeignNamesAside().
    [[nodiscard]] bool hasForeign() const { return sawForeign; }

private:
    OpenFolder directory;
    SpoolListing names;
    bool sawForeign = false;
};
