#pragma once

#include "Journal.h"

// Puts records that were on their way to the peer back into the spool directory, as files.
//
// Age decides between two records of one name: a file gets the time at which its record was
// accepted, and the newer one stands, whoever comes first. A failed call changes nothing and can be
// repeated; the reason is in errno.
namespace GiveBack {

// Moves a file of a folder into the spool under a name. Removes it instead if the spool holds a
// file of that name that is not older. True if it is gone already.
[[nodiscard]] bool file(
    int folder, const char *from, const QByteArray &spool, const QByteArray &name);

// Writes a record of a journal as a file; the folder is used on the way. Ignores one whose name
// cannot be a spool file's.
[[nodiscard]] bool record(int folder, const Journal::Entry &entry, const QByteArray &spool);

} // namespace GiveBack
