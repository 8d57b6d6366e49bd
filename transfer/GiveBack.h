#pragma once

#include "Journal.h"
#include "SpoolDirectory.h"

// Moves records that were on their way to the peer back into the spool directory, as files.
//
// Of two records with the same name the newer one stays, in whatever order they come back: a file
// gets the time at which its record was accepted. On failure the functions return false with the
// reason in errno, change nothing and can be called again.
namespace GiveBack {

// Moves the file `from` of a folder into the spool under `name`. Deletes it instead if the spool
// holds a file of that name that is not older. Returns true if the file no longer exists.
[[nodiscard]] bool file(
    int folder, const char *from, const SpoolDirectory &spool, const QByteArray &name);

// Writes a record of a journal as a file of the spool, with a temporary file in the folder. Ignores
// a record whose name is not a plain name.
[[nodiscard]] bool record(int folder, const Journal::Entry &entry, const SpoolDirectory &spool);

} // namespace GiveBack
