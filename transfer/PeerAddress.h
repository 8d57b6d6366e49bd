#pragma once

class QHostAddress;

namespace PeerAddress {

// Returns whether the address is null or unspecified, including ::ffff:0.0.0.0. The kernel would
// send to this host.
[[nodiscard]] bool isUnspecified(const QHostAddress &address);

// Returns whether the address belongs to this host. Costs several system calls.
[[nodiscard]] bool isThisHost(const QHostAddress &address);

} // namespace PeerAddress
