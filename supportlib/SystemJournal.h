#pragma once

#include <QByteArrayList>

// The journal of the system, for entries with fields.
//
// Thread:  any.
namespace SystemJournal {

// Writes one entry. Each field is "NAME=value" with a name in capitals; "MESSAGE" must be among
// them. False if there is no journal here, or it does not take the entry.
[[nodiscard]] bool send(const QByteArrayList &fields);

} // namespace SystemJournal
