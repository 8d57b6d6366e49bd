#pragma once

#include <QString>

// The version of this library, one line.
[[nodiscard]] QString getHarnixVersion();
