#pragma once

#include <QTest>

using namespace Qt::StringLiterals;

// How long a test waits for what should happen soon. A start takes up to 15 seconds, and a busy
// machine stretches everything.
inline constexpr int longestWait = 30'000; // milliseconds

// Qt's five seconds are one pass of the bus: too short for what needs one pass more.
#undef QTRY_COMPARE
#undef QTRY_VERIFY
#undef QTRY_VERIFY2
#define QTRY_COMPARE(actual, expected) QTRY_COMPARE_WITH_TIMEOUT((actual), (expected), longestWait)
#define QTRY_VERIFY(condition) QTRY_VERIFY_WITH_TIMEOUT((condition), longestWait)
#define QTRY_VERIFY2(condition, text) QTRY_VERIFY2_WITH_TIMEOUT((condition), text, longestWait)
