#pragma once

#include <QString>

// The protocol between an administration server and its consoles. Each line is a JSON object;
// docs/bus.md lists them.
namespace ControlProtocol {

// Returns the bus name of a server's control socket.
[[nodiscard]] inline QString socketName(const QString &serverName)
{
    return serverName + QStringLiteral(".control");
}

inline constexpr qsizetype longestCommandLine = 65'536; // bytes
inline constexpr qsizetype longestPassedText = 1'048'576; // bytes of an action
// Holds the largest frame's data in base64, the longest text with every byte escaped, and the rest.
inline constexpr qsizetype longestEventLine = 100'000'000;

} // namespace ControlProtocol
