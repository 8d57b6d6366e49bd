#pragma once

// Milliseconds for what a loaded machine does slowly; a module takes up to 15 seconds to start.
inline constexpr int patience = 30'000;
