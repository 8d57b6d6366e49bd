#pragma once

#include <QString>

// Why no socket can have this bus name; empty if one can.
[[nodiscard]] QString busNameProblem(const QString &name);

// The socket file of a bus name. It lies in the temporary folder, which TMPDIR moves.
[[nodiscard]] QString busSocketPath(const QString &name);
