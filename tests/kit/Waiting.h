#pragma once

#include <QTest>

// How long a test waits for what should happen soon. A start takes up to 15 seconds, and a busy
// machine stretches everything.
inline constexpr int longestWait = 30'000; // milliseconds

// Qt's five seconds are one pass of the bus: too short for what needs one pass more.
#undef QTRY_COMPARE
#undef QTRY_VERIFY
#define QTRY_COMPARE(actual, expected) QTRY_COMPARE_WITH_TIMEOUT((actual), (expected), longestWait)
#define QTRY_VERIFY(condition) QTRY_VERIFY_WITH_TIMEOUT((condition), longestWait)
