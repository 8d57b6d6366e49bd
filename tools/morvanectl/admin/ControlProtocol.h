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

inline constexpr qsizetype longestCommandLine = 65'536; // bytes that a console may send as one line
inline constexpr qsizetype longestMessage =
    1'048'576; // bytes of an action's text that are passed on
// A frame's data in base64, the longest message, all of it escaped, and room for the rest.
inline constexpr qsizetype longestEventLine = 100'000'000;

} // namespace ControlProtocol
