#pragma once

#include <QString>

// Returns the version of this library, on one line.
[[nodiscard]] QString getHarnixVersion();
