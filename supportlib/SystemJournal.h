#pragma once

#include <QByteArrayList>

// The journal of the system, for entries with fields. May be called on any thread.
namespace SystemJournal {

// Writes one entry. Each field is "NAME=value" with a name in capitals; one of them must be
// "MESSAGE". Returns false if there is no journal or it refuses the entry.
[[nodiscard]] bool send(const QByteArrayList &fields);

} // namespace SystemJournal
