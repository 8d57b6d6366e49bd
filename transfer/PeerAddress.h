#pragma once

class QHostAddress;

namespace PeerAddress {

// Null and unspecified addresses, ::ffff:0.0.0.0 among them, mean this very host to the kernel.
[[nodiscard]] bool isUnspecified(const QHostAddress &address);

// Whether an address is one of this host's own. Costs several system calls.
[[nodiscard]] bool isThisHost(const QHostAddress &address);

} // namespace PeerAddress
